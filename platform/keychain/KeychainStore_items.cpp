#include "platform/keychain/KeychainStore.h"

// What a store keeps.

namespace tessard {

namespace {

KeychainStore::Password passwordIn(const SqlRow& row) {
  return {row.number(0), row.text(1), row.text(2), row.text(3)};
}

// The access is part of it: who may use the secret cannot be changed without the key either.
std::string placeOf(const KeychainStore::Password& password) {
  return sealingPlace({"generic_password", std::to_string(password.id), password.account, password.access});
}

std::string placeOfKey(std::string_view publicKeyDigest) {
  return sealingPlace({"private_key", publicKeyDigest});
}

std::string placeOfPassPhrase(std::string_view file) {
  return sealingPlace({"pass_phrase", file});
}

}  // namespace

KeychainResult<std::vector<KeychainStore::Password>> KeychainStore::passwords() {
  const auto rows = database_.run("SELECT id, account, label, access FROM generic_password ORDER BY id");
  if (!rows) return rows.error();
  std::vector<Password> passwords;
  for (const SqlRow& row : rows.value()) passwords.push_back(passwordIn(row));
  return passwords;
}

KeychainResult<std::optional<KeychainStore::Password>> KeychainStore::passwordOf(std::string_view account) {
  const auto rows =
      database_.run("SELECT id, account, label, access FROM generic_password WHERE account = ?", {account});
  if (!rows) return rows.error();
  if (rows.value().empty()) return std::optional<Password>();
  return std::optional(passwordIn(rows.value().front()));
}

KeychainResult<std::optional<KeychainStore::Password>> KeychainStore::password(std::int64_t id) {
  const auto rows =
      database_.run("SELECT id, account, label, access FROM generic_password WHERE id = ?", {id});
  if (!rows) return rows.error();
  if (rows.value().empty()) return std::optional<Password>();
  return std::optional(passwordIn(rows.value().front()));
}

KeychainResult<Secret> KeychainStore::contentOf(const Password& password) {
  const auto rows = database_.run("SELECT sealed FROM generic_password WHERE id = ?", {password.id});
  if (!rows) return rows.error();
  if (rows.value().empty()) return KeychainError{KeychainProblem::notFound, "There is no such password"};
  return unseal(rows.value().front().text(0), placeOf(password));
}

KeychainResult<std::int64_t> KeychainStore::addPassword(const Password& attributes,
                                                        std::string_view content) {
  // The row's number is part of the place that the content is sealed for, so the row comes first.
  if (auto put = change("INSERT INTO generic_password (account, label, access, sealed) VALUES (?, ?, ?, x'')",
                        {attributes.account, attributes.label, attributes.access});
      !put) {
    return put.error();
  }
  Password added = attributes;
  added.id = database_.lastRow();
  if (auto set = setContent(added, content); !set) return set.error();
  return added.id;
}

KeychainResult<void> KeychainStore::setContent(const Password& password, std::string_view content) {
  const auto sealed = seal(content, placeOf(password));
  if (!sealed) return sealed.error();
  return change("UPDATE generic_password SET sealed = ? WHERE id = ?", {Blob{sealed.value()}, password.id});
}

KeychainResult<void> KeychainStore::removePassword(std::int64_t id) {
  return change("DELETE FROM generic_password WHERE id = ?", {id});
}

KeychainResult<std::vector<KeychainStore::StoredCertificate>> KeychainStore::certificates() {
  const auto rows = database_.run("SELECT id, der FROM certificate ORDER BY id");
  if (!rows) return rows.error();
  std::vector<StoredCertificate> certificates;
  for (const SqlRow& row : rows.value()) certificates.push_back({row.number(0), row.text(1)});
  return certificates;
}

KeychainResult<std::optional<std::string>> KeychainStore::certificate(std::int64_t id) {
  const auto rows = database_.run("SELECT der FROM certificate WHERE id = ?", {id});
  if (!rows) return rows.error();
  if (rows.value().empty()) return std::optional<std::string>();
  return std::optional(rows.value().front().text(0));
}

KeychainResult<std::int64_t> KeychainStore::addCertificate(std::string_view der) {
  if (auto put = change("INSERT INTO certificate (der) VALUES (?)", {Blob{der}}); !put) return put.error();
  return database_.lastRow();
}

KeychainResult<void> KeychainStore::removeCertificate(std::int64_t id) {
  return change("DELETE FROM certificate WHERE id = ?", {id});
}

KeychainResult<bool> KeychainStore::hasKey(std::string_view publicKeyDigest) {
  const auto rows = database_.run("SELECT 1 FROM private_key WHERE public_key = ?", {Blob{publicKeyDigest}});
  if (!rows) return rows.error();
  return !rows.value().empty();
}

KeychainResult<std::optional<Secret>> KeychainStore::key(std::string_view publicKeyDigest) {
  const auto rows =
      database_.run("SELECT sealed FROM private_key WHERE public_key = ?", {Blob{publicKeyDigest}});
  if (!rows) return rows.error();
  if (rows.value().empty()) return std::optional<Secret>();
  auto opened = unseal(rows.value().front().text(0), placeOfKey(publicKeyDigest));
  if (!opened) return opened.error();
  return std::optional(std::move(opened).value());
}

KeychainResult<void> KeychainStore::addKey(std::string_view publicKeyDigest, std::string_view pkcs8) {
  const auto sealed = seal(pkcs8, placeOfKey(publicKeyDigest));
  if (!sealed) return sealed.error();
  return change("INSERT INTO private_key (public_key, sealed) VALUES (?, ?)",
                {Blob{publicKeyDigest}, Blob{sealed.value()}});
}

KeychainResult<void> KeychainStore::removeKey(std::string_view publicKeyDigest) {
  return change("DELETE FROM private_key WHERE public_key = ?", {Blob{publicKeyDigest}});
}

KeychainResult<std::vector<KeychainStore::Preference>> KeychainStore::preferences() {
  const auto rows = database_.run("SELECT name, certificate FROM preferred_identity ORDER BY name");
  if (!rows) return rows.error();
  std::vector<Preference> preferences;
  for (const SqlRow& row : rows.value()) preferences.push_back({row.text(0), row.number(1)});
  return preferences;
}

KeychainResult<std::optional<std::int64_t>> KeychainStore::preferred(std::string_view name) {
  const auto rows = database_.run("SELECT certificate FROM preferred_identity WHERE name = ?", {name});
  if (!rows) return rows.error();
  if (rows.value().empty()) return std::optional<std::int64_t>();
  return std::optional(rows.value().front().number(0));
}

KeychainResult<void> KeychainStore::setPreferred(std::string_view name, std::int64_t certificate) {
  return change(
      "INSERT INTO preferred_identity (name, certificate) VALUES (?, ?)"
      " ON CONFLICT (name) DO UPDATE SET certificate = excluded.certificate",
      {name, certificate});
}

KeychainResult<bool> KeychainStore::clearPreferred(std::string_view name) {
  if (auto done = change("DELETE FROM preferred_identity WHERE name = ?", {name}); !done) return done.error();
  return database_.changedRows() > 0;
}

KeychainResult<std::vector<std::string>> KeychainStore::passPhraseFiles() {
  const auto rows = database_.run("SELECT file FROM pass_phrase ORDER BY file");
  if (!rows) return rows.error();
  std::vector<std::string> files;
  for (const SqlRow& row : rows.value()) files.push_back(row.text(0));
  return files;
}

KeychainResult<std::optional<Secret>> KeychainStore::passPhrase(std::string_view file) {
  const auto rows = database_.run("SELECT sealed FROM pass_phrase WHERE file = ?", {file});
  if (!rows) return rows.error();
  if (rows.value().empty()) return std::optional<Secret>();
  auto opened = unseal(rows.value().front().text(0), placeOfPassPhrase(file));
  if (!opened) return opened.error();
  return std::optional(std::move(opened).value());
}

KeychainResult<void> KeychainStore::setPassPhrase(std::string_view file, std::string_view phrase) {
  const auto sealed = seal(phrase, placeOfPassPhrase(file));
  if (!sealed) return sealed.error();
  return change(
      "INSERT INTO pass_phrase (file, sealed) VALUES (?, ?)"
      " ON CONFLICT (file) DO UPDATE SET sealed = excluded.sealed",
      {file, Blob{sealed.value()}});
}

KeychainResult<bool> KeychainStore::removePassPhrase(std::string_view file) {
  if (auto done = change("DELETE FROM pass_phrase WHERE file = ?", {file}); !done) return done.error();
  return database_.changedRows() > 0;
}

}  // namespace tessard
