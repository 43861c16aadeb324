#include <algorithm>
#include <cerrno>
#include <cstdint>

#include "common/Format.h"
#include "common/PluginRequestHandler.h"

namespace tessard {

namespace {

constexpr std::uint64_t kUsualLines = 100;
constexpr std::uint64_t kMostLines = 100'000;
constexpr std::uint64_t kUsualBytes = std::uint64_t{1} << 20;
constexpr std::uint64_t kMostBytes = std::uint64_t{4} << 20;
constexpr std::size_t kMostFilters = 100;

// An identifier comes from outside, and goes into a line of a log.
bool isPresentable(const std::string& text) {
  constexpr std::size_t kMost = 100;
  return text.size() <= kMost &&
         std::ranges::none_of(text, [](unsigned char byte) { return byte < ' ' || byte >= 0x7f; });
}

// Integers, and strings that consist of their digits.
std::optional<std::uint64_t> wholeNumber(const Value& value) {
  if (const std::int64_t* number = value.asInteger()) {
    if (*number < 0) return std::nullopt;
    return static_cast<std::uint64_t>(*number);
  }
  const std::string* text = value.asString();
  constexpr std::size_t kMostDigits = 18;
  if (!text || text->empty() || text->size() > kMostDigits) return std::nullopt;
  if (text->find_first_not_of("0123456789") != std::string::npos) return std::nullopt;
  return static_cast<std::uint64_t>(integerReading(*text));
}

Result<std::optional<std::uint64_t>> limitIn(const Dictionary& request, const char* key, std::uint64_t least,
                                             std::uint64_t most) {
  const Value* given = request.find(key);
  if (!given) return std::optional<std::uint64_t>();
  const auto number = wholeNumber(*given);
  if (number && *number >= least && *number <= most) return number;
  return SystemError(EINVAL, fill("\"%@\" must be a number from %lu to %lu", {key, least, most}));
}

Result<std::vector<std::string>> filtersIn(const Dictionary& request) {
  const Value* given = request.find("withFilters");
  if (!given) return std::vector<std::string>();
  const Array* list = given->asArray();
  if (!list || list->size() > kMostFilters ||
      !std::ranges::all_of(*list, [](const Value& filter) { return filter.asString() != nullptr; })) {
    return SystemError(EINVAL, fill("\"withFilters\" must be a list of at most %lu strings", {kMostFilters}));
  }
  return stringsOf(*list);
}

Result<LogQuery> queryOf(const Dictionary& request, const std::optional<Dictionary>& paths) {
  const std::string* identifier = request.stringFor("identifier");
  if (!identifier) return SystemError(EINVAL, "\"identifier\" must be a string");
  const std::string* path = paths ? paths->stringFor(*identifier) : nullptr;
  if (!path) {
    return SystemError(EINVAL, isPresentable(*identifier) ? fill("there is no log \"%@\"", {*identifier})
                                                          : "there is no log of that name");
  }
  const auto lines = limitIn(request, "lines", 0, kMostLines);
  if (!lines) return lines.error();
  const auto bytes = limitIn(request, "bytes", 1, kMostBytes);
  if (!bytes) return bytes.error();
  auto filters = filtersIn(request);
  if (!filters) return filters.error();
  const std::string* position = request.stringFor("position");
  if (request.contains("position") && !position) return SystemError(EINVAL, "\"position\" must be a string");
  LogQuery query;
  query.path = *path;
  query.lines = lines.value();
  // Whoever follows a log wants all of it, and whoever asks for bytes has said how much.
  if (!query.lines && !bytes.value() && !position) query.lines = kUsualLines;
  query.bytes = bytes.value().value_or(kUsualBytes);
  query.filters = std::move(filters).value();
  if (position) query.position = *position;
  return query;
}

const char* wordFor(LogGap gap) {
  switch (gap) {
    case LogGap::none:
      break;
    case LogGap::lines:
      return "lines";
    case LogGap::bytes:
      return "bytes";
    case LogGap::search:
      return "search";
    case LogGap::unreadable:
      return "unreadable";
    case LogGap::lost:
      return "lost";
  }
  return nullptr;
}

}  // namespace

Dictionary PluginRequestHandler::tailFileWithRequest(const Dictionary& request) {
  const auto query = queryOf(request, logPaths());
  if (!query) {
    logError_source(fill("log request refused: %@", {query.error().description()}), "");
    return responseForError("INVALID_ARG_ERR");
  }
  const auto excerpt = logs_.read(query.value());
  if (!excerpt && excerpt.error().code() == ESPIPE) {
    logError_source("log request refused: \"position\" is not one that an answer gave", "");
    return responseForError("INVALID_ARG_ERR");
  }
  if (!excerpt) {
    logError_source(
        fill("the log %@ cannot be read: %@", {query.value().path, excerpt.error().description()}), "");
    return responseForError("CANNOT_STAT_ERR");
  }
  const LogGap gap = excerpt.value().gap;
  Dictionary answer = {{"lines", arrayOf(excerpt.value().lines)},
                       {"position", excerpt.value().position},
                       {"complete", gap == LogGap::none}};
  if (const char* reason = wordFor(gap)) answer.set("reason", reason);
  answer.set("more", excerpt.value().more);
  return answer;
}

}  // namespace tessard
