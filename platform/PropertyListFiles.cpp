#include "common/PropertyListFiles.h"

#include <cerrno>
#include <optional>

#include "common/SameFile.h"
#include "platform/PropertyListParts.h"

namespace tessard {

Result<const Dictionary*> PropertyListFiles::look(std::string_view path) {
  auto found = remembered_.find(path);
  // Before the file is looked at: whatever changes it from here on is dated this moment or later.
  const FileTime now = clock_.now();
  const auto before = files_.attributes(path);
  if (found != remembered_.end()) {
    Remembered& known = found->second;
    if (before && known.settled && isSameFile(before.value(), known.file)) {
      if (firstLooks_) firstLooks_->emplace(path);
      return &known.content;
    }
  } else {
    found = remembered_.emplace(path, Remembered{}).first;
  }
  Remembered& known = found->second;
  auto bytes = files_.readFile(path, kPropertyListFileSizeLimit);
  keepVersion(path, before, bytes);
  if (bytes && (known.bytes.empty() || known.bytes != bytes.value())) {
    auto content = dictionaryIn(bytes.value());
    if (!content) bytes = content.error();
    if (content) known.content = std::move(content).value();
  }
  if (!bytes) {
    remembered_.erase(found);
    return bytes.error();
  }
  const auto after = files_.attributes(path);
  known.settled =
      before && after && isSameFile(before.value(), after.value()) && before.value().changed < now;
  if (before) known.file = before.value();
  known.bytes = known.settled ? std::string() : std::move(bytes).value();
  return &known.content;
}

Result<Dictionary> PropertyListFiles::read(std::string_view path) {
  const auto found = look(path);
  if (!found) return found.error();
  return *found.value();
}

void PropertyListFiles::keepVersion(std::string_view path, const Result<FileAttributes>& before,
                                    const Result<std::string>& content) {
  if (firstLooks_ && !firstLooks_->emplace(path).second) return;
  if (const auto old = versions_.find(path); old != versions_.end()) versions_.erase(old);
  if (content) {
    versions_.emplace(
        path, before ? versionOf(before.value(), content.value()) : Result<FileVersion>(before.error()));
  } else if (content.error().code() == ENOENT) {
    // No file is a version, too: one that somebody makes is another.
    versions_.emplace(path, FileVersion{});
  } else if (mayPass(content.error())) {
    versions_.emplace(path, content.error());
  }
}

Result<void> PropertyListFiles::write(std::string_view path, const Dictionary& content,
                                      const FileOwnership& ownership) {
  const auto looked = versions_.find(path);
  if (looked != versions_.end() && !looked->second) return looked->second.error();
  const auto version = looked != versions_.end() ? std::optional(looked->second.value()) : std::nullopt;
  if (const auto known = remembered_.find(path); known != remembered_.end()) remembered_.erase(known);
  const auto bytes = bytesOf(content);
  if (!bytes) return bytes.error();
  // What fails leaves the version that it was to replace as it is.
  auto written = writePropertyListBytes(files_, path, bytes.value(), ownership, version);
  if (!written) return written;
  if (looked != versions_.end()) versions_.erase(looked);
  versions_.emplace(path, versionOf(bytes.value()));
  return written;
}

}  // namespace tessard
