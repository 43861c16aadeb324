#include "platform/keychain/KeychainStore.h"

#include "common/Format.h"

// How a store is opened, and made.

namespace tessard {

namespace {

// "TsKc": marks the file as a keychain of this program.
constexpr std::int64_t kApplication = 0x54734b63;
constexpr std::int64_t kFormVersion = 1;

// Something known that opens with the right key alone.
constexpr std::string_view kKeyProof = "tessard keychain";
const std::string kKeyProofPlace = sealingPlace({"keychain", "proof"});

constexpr const char* kTables[] = {
    "CREATE TABLE keychain (proof BLOB NOT NULL)",
    "CREATE TABLE generic_password (id INTEGER PRIMARY KEY AUTOINCREMENT, account TEXT NOT NULL UNIQUE,"
    " label TEXT NOT NULL, access TEXT NOT NULL, sealed BLOB NOT NULL)",
    "CREATE TABLE certificate (id INTEGER PRIMARY KEY AUTOINCREMENT, der BLOB NOT NULL UNIQUE)",
    "CREATE TABLE private_key (public_key BLOB PRIMARY KEY NOT NULL, sealed BLOB NOT NULL)",
    "CREATE TABLE preferred_identity (name TEXT PRIMARY KEY NOT NULL,"
    " certificate INTEGER NOT NULL REFERENCES certificate (id) ON DELETE CASCADE)",
    "CREATE TABLE pass_phrase (file TEXT PRIMARY KEY NOT NULL, sealed BLOB NOT NULL)",
};

KeychainError notAKeychain() {
  return {KeychainProblem::damaged, fill("%@ is not a keychain", {kKeychainStore})};
}

std::int64_t numberIn(const KeychainResult<std::vector<SqlRow>>& answer) {
  return answer.value().empty() ? 0 : answer.value().front().number(0);
}

}  // namespace

KeychainResult<std::optional<KeychainStore>> KeychainStore::openToRead(const std::string& root) {
  return openIfThere(root, openExistingToRead);
}

KeychainResult<std::optional<KeychainStore>> KeychainStore::openToChangeIfThere(const std::string& root) {
  return openIfThere(root, openExistingToChange);
}

KeychainResult<KeychainStore> KeychainStore::openToChange(const std::string& root) {
  const auto directory = KeychainDirectory::make(root);
  if (!directory) return directory.error();
  const auto there = directory.value().hasStore();
  if (!there) return there.error();
  if (!there.value()) {
    if (auto created = create(root); !created) return created.error();
  }
  return openExistingToChange(directory.value());
}

KeychainResult<std::optional<KeychainStore>> KeychainStore::openIfThere(
    const std::string& root, KeychainResult<KeychainStore> (*open)(const KeychainDirectory&)) {
  const auto directory = KeychainDirectory::open(root);
  if (!directory) return directory.error();
  if (!directory.value()) return std::optional<KeychainStore>();
  const auto there = directory.value()->hasStore();
  if (!there) return there.error();
  if (!there.value()) return std::optional<KeychainStore>();
  auto opened = open(*directory.value());
  if (!opened) return opened.error();
  return std::optional(std::move(opened).value());
}

KeychainResult<KeychainStore> KeychainStore::openExistingToRead(const KeychainDirectory& directory) {
  return openExisting(directory, "BEGIN");
}

KeychainResult<KeychainStore> KeychainStore::openExistingToChange(const KeychainDirectory& directory) {
  auto opened = openExisting(directory, "BEGIN IMMEDIATE");
  if (!opened) return opened.error();
  // A file that is damaged in one place is not written to in another.
  const auto checked = opened.value().database_.run("PRAGMA quick_check(1)");
  if (!checked) return checked.error();
  if (checked.value().size() != 1 || checked.value().front().text(0) != "ok") {
    return KeychainError{KeychainProblem::damaged, fill("%@ is damaged", {kKeychainStore})};
  }
  return opened;
}

KeychainResult<void> KeychainStore::commit() {
  return change("COMMIT", {});
}

KeychainResult<KeychainStore> KeychainStore::openExisting(const KeychainDirectory& directory,
                                                          const char* beginning) {
  auto key = directory.key();
  if (!key) return key.error();
  if (!key.value()) {
    return KeychainError{
        KeychainProblem::keyMissing,
        fill("%@ is missing; without it what %@ holds cannot be opened", {kKeychainKey, kKeychainStore})};
  }
  const auto path = directory.pathOf(KeychainDirectory::kStoreName);
  if (!path) return path.error();
  auto database = Database::open(path.value());
  if (!database) return database.error();
  KeychainStore store(std::move(database).value(), *std::move(key).value());
  if (auto begun = store.change(beginning, {}); !begun) return begun.error();
  if (auto known = store.checkForm(); !known) return known.error();
  return store;
}

KeychainResult<void> KeychainStore::checkForm() {
  const auto application = database_.run("PRAGMA application_id");
  if (!application) return application.error();
  const auto version = database_.run("PRAGMA user_version");
  if (!version) return version.error();
  if (numberIn(application) != kApplication || numberIn(version) < 1) return notAKeychain();
  if (numberIn(version) > kFormVersion) {
    return KeychainError{KeychainProblem::newer,
                         fill("%@ was made by a later version of this program", {kKeychainStore})};
  }
  const auto proof = database_.run("SELECT proof FROM keychain");
  if (!proof) return proof.error();
  if (proof.value().size() != 1) return notAKeychain();
  const auto opened = key_.open(proof.value().front().text(0), kKeyProofPlace);
  if (!opened || opened->view() != kKeyProof) {
    return KeychainError{KeychainProblem::wrongKey,
                         fill("%@ is not the key of %@", {kKeychainKey, kKeychainStore})};
  }
  return {};
}

// The database gets its name when it is complete, so that no process ever meets half of one.
KeychainResult<void> KeychainStore::create(const std::string& root) {
  const auto directory = KeychainDirectory::make(root);
  if (!directory) return directory.error();
  const KeychainDirectory& place = directory.value();
  if (auto locked = place.lock(); !locked) return locked.error();
  const auto there = place.hasStore();
  if (!there) return there.error();
  if (there.value()) return {};  // another process was first
  auto known = place.key();
  if (!known) return known.error();
  if (!known.value()) {
    auto made = place.makeKey();
    if (!made) return made.error();
    known.value() = std::move(made).value();
  }
  if (auto drafted = place.makeDraft(); !drafted) return drafted.error();
  if (auto filled = fillDraft(place, *known.value()); !filled) return filled.error();
  return place.publishDraft();
}

KeychainResult<void> KeychainStore::fillDraft(const KeychainDirectory& directory, const SealingKey& key) {
  const auto path = directory.pathOf(KeychainDirectory::kDraftName);
  if (!path) return path.error();
  auto database = Database::open(path.value());
  if (!database) return database.error();
  const auto proof = key.seal(kKeyProof, kKeyProofPlace);
  if (!proof) return KeychainError{KeychainProblem::io, "The keychain's cipher does not work"};
  std::vector<std::string> statements = {"BEGIN IMMEDIATE",
                                         fill("PRAGMA application_id = %d", {kApplication}),
                                         fill("PRAGMA user_version = %d", {kFormVersion})};
  statements.insert(statements.end(), std::begin(kTables), std::end(kTables));
  for (const std::string& statement : statements) {
    if (auto done = database.value().run(statement); !done) return done.error();
  }
  if (auto put = database.value().run("INSERT INTO keychain (proof) VALUES (?)", {Blob{*proof}}); !put) {
    return put.error();
  }
  if (auto committed = database.value().run("COMMIT"); !committed) return committed.error();
  return {};
}

KeychainResult<std::string> KeychainStore::seal(std::string_view content, std::string_view place) const {
  auto sealed = key_.seal(content, place);
  if (!sealed) return KeychainError{KeychainProblem::io, "The keychain's cipher does not work"};
  return *std::move(sealed);
}

KeychainResult<Secret> KeychainStore::unseal(std::string_view sealed, std::string_view place) const {
  auto opened = key_.open(sealed, place);
  if (!opened) {
    return KeychainError{KeychainProblem::damaged,
                         fill("A secret in %@ was changed or put into another place", {kKeychainStore})};
  }
  return *std::move(opened);
}

KeychainResult<void> KeychainStore::change(std::string_view statement,
                                           std::initializer_list<SqlInput> inputs) {
  if (auto done = database_.run(statement, inputs); !done) return done.error();
  return {};
}

}  // namespace tessard
