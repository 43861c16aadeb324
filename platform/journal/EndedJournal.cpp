#include "platform/journal/EndedJournal.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <memory>
#include <string_view>

#include "common/Format.h"
#include "common/Text.h"
#include "platform/SystemCalls.h"

namespace tessard {

namespace {

const std::string kVersions = "versions";
constexpr std::string_view kEnd = "end";
constexpr std::size_t kBlock = std::size_t{64} * 1024;

FileTime timeOf(const timespec& time) {
  return {time.tv_sec, time.tv_nsec};
}

class Digest {
 public:
  Digest() : context_(EVP_MD_CTX_new(), EVP_MD_CTX_free) {
    good_ = context_ && EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) == 1;
  }

  void add(std::string_view bytes) {
    good_ = good_ && EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size()) == 1;
  }

  Result<std::string> inHexadecimal() {
    std::array<unsigned char, EVP_MAX_MD_SIZE> bytes{};
    unsigned size = 0;
    if (!good_ || EVP_DigestFinal_ex(context_.get(), bytes.data(), &size) != 1) return SystemError(ENOMEM);
    constexpr std::string_view kDigits = "0123456789abcdef";
    std::string text;
    for (unsigned index = 0; index < size; ++index) {
      text += kDigits[bytes[index] >> 4U];
      text += kDigits[bytes[index] & 0x0fU];
    }
    return text;
  }

 private:
  std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> context_;
  bool good_ = false;
};

Result<FileDescriptor> openFile(NameIn file) {
  FileDescriptor opened(uninterrupted([&] {
    return ::openat(file.directory, file.name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  }));
  if (!opened) return SystemError::last();
  return opened;
}

// Of what the opened file still holds.
Result<std::string> digestOf(const FileDescriptor& file) {
  Digest digest;
  std::string block(kBlock, '\0');
  for (;;) {
    const auto count = readUpTo(file.get(), block.data(), block.size());
    if (!count) return count.error();
    digest.add({block.data(), count.value()});
    if (count.value() < block.size()) return digest.inHexadecimal();
  }
}

Result<std::string> targetOf(NameIn link) {
  std::string target(PATH_MAX, '\0');
  const ssize_t length = ::readlinkat(link.directory, link.name.c_str(), target.data(), target.size());
  if (length < 0) return SystemError::last();
  target.resize(static_cast<std::size_t>(length));
  return target;
}

Result<std::string> contentOf(NameIn file) {
  const auto opened = openFile(file);
  if (!opened) return opened.error();
  std::string content;
  std::string block(kBlock, '\0');
  for (;;) {
    const auto count = readUpTo(opened.value().get(), block.data(), block.size());
    if (!count) return count.error();
    content.append(block, 0, count.value());
    if (count.value() < block.size()) return content;
  }
}

}  // namespace

Result<std::string> versionOf(NameIn file) {
  const auto status = statusOf(file);
  if (!status && status.error().code() == ENOENT) return kNoVersion;
  if (!status) return status.error();
  const struct stat& is = status.value();
  const std::string attributes = attributesNameOf(is.st_uid, is.st_gid, is.st_mode & 07777U);
  if (S_ISDIR(is.st_mode)) return fill("directory %@", {attributes});
  if (S_ISLNK(is.st_mode)) {
    const auto target = targetOf(file);
    return target ? Result<std::string>(fill("link %u.%u %@", {is.st_uid, is.st_gid, target.value()}))
                  : target.error();
  }
  if (!S_ISREG(is.st_mode)) return fill("other %@", {attributes});
  const auto opened = openFile(file);
  if (!opened) return opened.error();
  const auto digest = digestOf(opened.value());
  return digest ? Result<std::string>(fill("file %@ %@", {attributes, digest.value()})) : digest.error();
}

Result<EndedJournal> EndedJournal::open(int home, const std::string& name) {
  auto directory = openDirectory({home, name});
  if (!directory) return directory.error();
  EndedJournal journal;
  journal.directory_ = std::move(directory).value();
  for (const char* kind : {kPresent, kAbsent}) {
    if (auto read = journal.readKind(kind); !read) return read.error();
  }
  if (auto read = journal.readRemoved(); !read) return read.error();
  for (auto* notes : {&journal.files_, &journal.besides_}) std::ranges::sort(*notes, {}, &Note::key);
  return journal;
}

Result<void> EndedJournal::readKind(const char* kind) {
  const auto tree = openDirectory({directory_.get(), kind});
  if (!tree) return tree.error().code() == ENOENT ? Result<void>() : tree.error();
  return readTree(tree.value().get(), "", kind == std::string_view(kPresent));
}

Result<void> EndedJournal::readTree(int mirror, const std::string& path, bool present) {
  const auto entries = entriesOf(mirror);
  if (!entries) return entries.error();
  for (const DirectoryEntry& entry : entries.value()) {
    if (!entry.isDirectory) {
      auto& notes = fileBeside(entry.name).empty() ? files_ : besides_;
      notes.push_back({present, path, entry.name});
      continue;
    }
    const auto inner = openDirectory({mirror, entry.name});
    if (!inner) return inner.error();
    auto read = readTree(inner.value().get(), fill("%@/%@", {path, nameOfMirror(entry.name)}), present);
    if (!read) return read;
  }
  return {};
}

Result<void> EndedJournal::readRemoved() {
  auto read = forEachNoteOf(kRemoved, [this](NameIn note, const NotedAttributes& attributes) -> Result<void> {
    auto path = targetOf(note);
    if (!path) return path.error();
    removed_.push_back({std::move(path).value(), attributes});
    return {};
  });
  std::ranges::sort(removed_, {}, &Directory::path);
  return read;
}

const EndedJournal::Note* EndedJournal::find(const std::string& path, const std::string& name) const {
  const auto& notes = fileBeside(name).empty() ? files_ : besides_;
  const auto found = std::ranges::lower_bound(
      notes, std::pair<std::string_view, std::string_view>(path, name), {}, &Note::key);
  return found != notes.end() && found->path == path && found->name == name ? &*found : nullptr;
}

Result<FileDescriptor> EndedJournal::mirrorOf(const std::string& path) const {
  std::string inside = kPresent;
  for (const std::string& name : mirrorNamesOf(path)) inside += '/' + name;
  return openDirectory({directory_.get(), inside});
}

Result<void> EndedJournal::forEachAttributes(const NoteCall& call) const {
  return forEachNoteOf(kAttributes, call);
}

// The notes of one group, each with the attributes that the name of its mirror tells.
Result<void> EndedJournal::forEachNoteOf(const std::string& group, const NoteCall& call) const {
  const auto all = openDirectory({directory_.get(), group});
  if (!all) return all.error().code() == ENOENT ? Result<void>() : all.error();
  const auto kinds = entriesOf(all.value().get());
  if (!kinds) return kinds.error();
  for (const DirectoryEntry& kind : kinds.value()) {
    const auto attributes = attributesIn(kind.name);
    const auto mirror = openDirectory({all.value().get(), kind.name});
    const auto notes = mirror ? entriesOf(mirror.value().get()) : mirror.error();
    if (!notes) return notes.error();
    if (!attributes) continue;
    for (const DirectoryEntry& note : notes.value()) {
      if (auto called = call({mirror.value().get(), note.name}, *attributes); !called) return called;
    }
  }
  return {};
}

// Each ends in a byte that is in no path, and the last tells that all are there.
std::optional<EndedJournal::Versions> EndedJournal::versions() const {
  const auto content = contentOf({directory_.get(), kVersions});
  if (!content) return std::nullopt;
  Versions versions;
  const auto parts = componentsOf(content.value(), '\0');
  if (parts.size() < 2 || parts.size() % 2 != 0 || parts[parts.size() - 2] != kEnd || !parts.back().empty()) {
    return std::nullopt;
  }
  for (std::size_t index = 0; index + 2 < parts.size(); index += 2) versions[parts[index]] = parts[index + 1];
  return versions;
}

Result<void> EndedJournal::setVersions(const Versions& versions) const {
  std::string content;
  for (const auto& [path, version] : versions)
    content.append(path).append(1, '\0').append(version).append(1, '\0');
  content.append(kEnd).append(1, '\0');
  if (::unlinkat(directory_.get(), kVersions.c_str(), 0) != 0 && errno != ENOENT) return SystemError::last();
  const FileDescriptor made(uninterrupted([&] {
    return ::openat(directory_.get(), kVersions.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                    0600);
  }));
  return made ? writeAll(made.get(), content) : Result<void>(SystemError::last());
}

Result<FileTime> EndedJournal::named() const {
  struct stat status {};
  if (::fstat(directory_.get(), &status) != 0) return SystemError::last();
  return timeOf(status.st_ctim);
}

}  // namespace tessard
