#include "common/PropertyListFiles.h"

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
    if (before && known.settled && isSameFile(before.value(), known.file)) return &known.content;
  } else {
    found = remembered_.emplace(path, Remembered{}).first;
  }
  Remembered& known = found->second;
  auto bytes = files_.readFile(path, kPropertyListFileSizeLimit);
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

}  // namespace tessard
