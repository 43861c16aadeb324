#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "common/PropertyList.h"

namespace tessard {

/// How many values one property list may hold, and how many bytes their strings and data may have together.
/// An XML list cannot reach them within its size limit; a binary one can name a value over and over.
inline constexpr std::size_t kPropertyListValueLimit = 200000;
inline constexpr std::size_t kPropertyListContentLimit = 4 * kPropertyListSizeLimit;

inline constexpr std::string_view kBinaryPropertyListMark = "bplist00";

Result<Value> parseXmlPropertyList(std::string_view bytes);
Result<Value> parseBinaryPropertyList(std::string_view bytes);

/// "2026-11-21T02:00:27Z", the form of dates in XML lists, for the years 1 to 9999. A fraction of a second
/// is dropped.
std::optional<Date> dateFromText(std::string_view text);
std::optional<std::string> textOfDate(Date date);

}  // namespace tessard
