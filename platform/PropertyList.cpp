#include "common/PropertyList.h"

#include <cerrno>
#include <utility>

#include "platform/PropertyListParts.h"

namespace tessard {

namespace {

constexpr FileOwnership kDirectoryOwnership = {std::nullopt, std::nullopt, 0755};

SystemError largerThan(std::size_t limit) {
  return SystemError(EFBIG, "the property list is larger than " + std::to_string(limit) + " bytes");
}

}  // namespace

Result<Value> parsePropertyList(std::string_view bytes, std::size_t sizeLimit, std::size_t valueLimit) {
  if (bytes.size() > sizeLimit) return largerThan(sizeLimit);
  if (bytes.starts_with(kBinaryPropertyListMark)) return parseBinaryPropertyList(bytes, valueLimit);
  return parseXmlPropertyList(bytes, valueLimit);
}

Result<Dictionary> readPropertyListFile(FileSystem& files, std::string_view path) {
  const Result<std::string> bytes = files.readFile(path, kPropertyListFileSizeLimit);
  if (!bytes) return bytes.error();
  return dictionaryIn(bytes.value());
}

Result<Dictionary> dictionaryIn(std::string_view bytes) {
  Result<Value> value = parsePropertyList(bytes, kPropertyListFileSizeLimit);
  if (!value) return value.error();
  Dictionary* const dictionary = value.value().asDictionary();
  if (!dictionary) return SystemError(0, "the top level of the property list is no dictionary");
  return std::move(*dictionary);
}

Result<std::string> bytesOf(const Dictionary& content) {
  auto bytes = serializePropertyList(Value(content));
  if (bytes && bytes.value().size() > kPropertyListFileSizeLimit)
    return largerThan(kPropertyListFileSizeLimit);
  return bytes;
}

Result<void> writePropertyListFile(FileSystem& files, std::string_view path, const Dictionary& content,
                                   const FileOwnership& ownership) {
  const auto bytes = bytesOf(content);
  return bytes ? writePropertyListBytes(files, path, bytes.value(), ownership, std::nullopt)
               : Result<void>(bytes.error());
}

Result<void> writePropertyListBytes(FileSystem& files, std::string_view path, std::string_view bytes,
                                    const FileOwnership& ownership, const std::optional<FileVersion>& read) {
  const std::string directory = directoryOf(path);
  const auto there = isThere(files, directory);
  if (!there) return there.error();
  if (!there.value()) {
    if (auto made = files.createDirectory(directory, kDirectoryOwnership, true); !made) return made;
  }
  return writeAtomically(files, path, bytes, ownership, read);
}

}  // namespace tessard
