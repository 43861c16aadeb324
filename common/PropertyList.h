#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "common/DurableReplace.h"
#include "common/FileSystem.h"
#include "common/Result.h"
#include "common/Value.h"

namespace tessard {

/// What a list from outside may have, and what one of our own files may have.
inline constexpr std::size_t kPropertyListSizeLimit = std::size_t{1024} * 1024;
inline constexpr std::size_t kPropertyListFileSizeLimit = 16 * kPropertyListSizeLimit;
inline constexpr std::size_t kPropertyListDepthLimit = 64;

/// Parses an XML or binary property list. Fails, with a sentence that names the reason, on anything
/// malformed, on more than `sizeLimit` bytes or `valueLimit` values or deeper nesting than
/// `kPropertyListDepthLimit`, on a doubled key, on an integer that 64 bits with a sign cannot hold, on UIDs,
/// and on entities or document types other than the property list's own (which is never fetched). Key order
/// is kept. Dates lie in the years 1 to 9999; a malformed list has the error code 0, a too large one EFBIG.
Result<Value> parsePropertyList(std::string_view bytes, std::size_t sizeLimit = kPropertyListSizeLimit,
                                std::size_t valueLimit = SIZE_MAX);

/// An XML property list, the same bytes for the same value. Dates are written in whole seconds, which is all
/// that XML lists have. Fails when a string or key is no text that XML can hold (see `isXmlText`), a date
/// lies outside the years 1 to 9999, or the value is nested deeper than `kPropertyListDepthLimit`.
Result<std::string> serializePropertyList(const Value& value);

/// Reads a file that holds a dictionary; any other value is an error, and so are more than
/// `kPropertyListFileSizeLimit` bytes.
Result<Dictionary> readPropertyListFile(FileSystem& files, std::string_view path);

/// Writes a dictionary as an XML property list, atomically (see `writeAtomically`). Missing directories above
/// the file are made first, mode 0755. EFBIG when it would be longer than `kPropertyListFileSizeLimit` bytes.
Result<void> writePropertyListFile(FileSystem& files, std::string_view path, const Dictionary& content,
                                   const FileOwnership& ownership);

}  // namespace tessard
