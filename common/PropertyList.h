#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "common/DurableReplace.h"
#include "common/FileSystem.h"
#include "common/Result.h"
#include "common/Value.h"

namespace tessard {

inline constexpr std::size_t kPropertyListSizeLimit = 1024 * 1024;
inline constexpr std::size_t kPropertyListDepthLimit = 64;

/// Parses an XML or binary property list. Fails, with a sentence that names the reason, on anything
/// malformed, on more than `kPropertyListSizeLimit` bytes or deeper nesting than `kPropertyListDepthLimit`,
/// on a doubled key, and on entities or document types other than the property list's own. Key order is kept.
Result<Value> parsePropertyList(std::string_view bytes);

/// An XML property list. Fails when a string or key is no text that XML can hold (see `isXmlText`), or when
/// the value is nested deeper than `kPropertyListDepthLimit`.
Result<std::string> serializePropertyList(const Value& value);

/// Reads a file that holds a dictionary.
Result<Dictionary> readPropertyListFile(FileSystem& files, std::string_view path);

/// Writes a dictionary as an XML property list, atomically (see `writeAtomically`).
Result<void> writePropertyListFile(FileSystem& files, std::string_view path, const Dictionary& content,
                                   const FileOwnership& ownership);

}  // namespace tessard
