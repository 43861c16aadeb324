#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "common/PropertyList.h"

namespace tessard {

/// How many values one binary property list may hold at the most, and how many bytes their strings and data
/// may have together: it can name a value over and over.
inline constexpr std::size_t kPropertyListValueLimit = 200000;
inline constexpr std::size_t kPropertyListContentLimit = 4 * kPropertyListSizeLimit;

inline constexpr std::string_view kBinaryPropertyListMark = "bplist00";

/// The dictionary that a file's bytes hold; see `readPropertyListFile`.
Result<Dictionary> dictionaryIn(std::string_view bytes);

/// The two halves of `writePropertyListFile`. `read`: see `writeAtomically`.
Result<std::string> bytesOf(const Dictionary& content);
Result<void> writePropertyListBytes(FileSystem& files, std::string_view path, std::string_view bytes,
                                    const FileOwnership& ownership, const std::optional<FileVersion>& read);

Result<Value> parseXmlPropertyList(std::string_view bytes, std::size_t valueLimit);
Result<Value> parseBinaryPropertyList(std::string_view bytes, std::size_t valueLimit);

/// "2026-11-21T02:00:27Z", the form of dates in XML lists, for the years 1 to 9999. A fraction of a second
/// is dropped.
std::optional<Date> dateFromText(std::string_view text);
std::optional<std::string> textOfDate(Date date);

}  // namespace tessard
