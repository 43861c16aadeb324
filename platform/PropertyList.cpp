#include "common/PropertyList.h"

#include <cerrno>
#include <utility>

#include "platform/PropertyListParts.h"

namespace tessard {

namespace {

SystemError tooLarge() {
  return SystemError(EFBIG,
                     "the property list is larger than " + std::to_string(kPropertyListSizeLimit) + " bytes");
}

}  // namespace

Result<Value> parsePropertyList(std::string_view bytes) {
  if (bytes.size() > kPropertyListSizeLimit) return tooLarge();
  if (bytes.starts_with(kBinaryPropertyListMark)) return parseBinaryPropertyList(bytes);
  return parseXmlPropertyList(bytes);
}

Result<Dictionary> readPropertyListFile(FileSystem& files, std::string_view path) {
  const Result<std::string> bytes = files.readFile(path, kPropertyListSizeLimit);
  if (!bytes) return bytes.error();
  Result<Value> value = parsePropertyList(bytes.value());
  if (!value) return value.error();
  Dictionary* const dictionary = value.value().asDictionary();
  if (!dictionary) return SystemError(0, "the top level of the property list is no dictionary");
  return std::move(*dictionary);
}

Result<void> writePropertyListFile(FileSystem& files, std::string_view path, const Dictionary& content,
                                   const FileOwnership& ownership) {
  const Result<std::string> bytes = serializePropertyList(Value(content));
  if (!bytes) return bytes.error();
  if (bytes.value().size() > kPropertyListSizeLimit) return tooLarge();
  return writeAtomically(files, path, bytes.value(), ownership);
}

}  // namespace tessard
