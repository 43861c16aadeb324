#include "host/MediaType.h"

#include <array>
#include <cstdlib>
#include <vector>

#include "common/PropertyList.h"
#include "common/Text.h"
#include "host/JsonCodec.h"

namespace tessard {

namespace {

constexpr std::array<std::string_view, 4> kNames = {"application/json", "application/xml", "text/xml",
                                                    "application/x-plist"};

std::string trimmedLowerCase(std::string_view text) {
  return asciiLowercase(trimmed(text, " \t"));
}

std::vector<std::string> split(std::string_view text, char separator) {
  std::vector<std::string> parts;
  while (true) {
    const auto end = text.find(separator);
    parts.push_back(trimmedLowerCase(text.substr(0, end)));
    if (end == std::string_view::npos) return parts;
    text.remove_prefix(end + 1);
  }
}

double qualityOf(const std::vector<std::string>& range) {
  for (std::size_t index = 1; index < range.size(); ++index) {
    if (range[index].starts_with("q=")) return std::strtod(range[index].c_str() + 2, nullptr);
  }
  return 1;
}

bool isUtf8Name(std::string name) {
  if (name.size() >= 2 && name.front() == '"' && name.back() == '"') name = name.substr(1, name.size() - 2);
  return name == "utf-8" || name == "us-ascii";
}

bool covers(const std::string& range, const std::string& name) {
  return range == "*/*" || range == name ||
         (range.ends_with("/*") && name.starts_with(range.substr(0, range.size() - 1)));
}

}  // namespace

std::optional<MediaType> MediaType::named(const std::string& name) {
  for (const std::string_view known : kNames) {
    if (known == name) return MediaType(name);
  }
  return std::nullopt;
}

std::optional<MediaType> MediaType::fromContentType(std::string_view header) {
  const auto parts = split(header, ';');
  for (std::size_t index = 1; index < parts.size(); ++index) {
    constexpr std::string_view kCharset = "charset=";
    if (parts[index].starts_with(kCharset) && !isUtf8Name(parts[index].substr(kCharset.size()))) {
      return std::nullopt;
    }
  }
  return named(parts.front());
}

MediaType MediaType::forAnswer(const std::optional<std::string>& accept, const MediaType& sent) {
  std::optional<MediaType> best;
  double bestQuality = 0;
  if (!accept) return sent;
  for (const std::string& item : split(*accept, ',')) {
    const auto range = split(item, ';');
    const double quality = qualityOf(range);
    const bool isSent = covers(range.front(), sent.name());
    std::optional<MediaType> offered = isSent ? sent : named(range.front());
    for (const std::string_view known : kNames) {
      if (!offered && covers(range.front(), std::string(known))) offered = MediaType(std::string(known));
    }
    if (!offered || quality < bestQuality || quality <= 0) continue;
    if (quality > bestQuality || isSent) best = offered;
    bestQuality = quality;
  }
  return best.value_or(sent);
}

Result<Value> MediaType::parse(std::string_view body) const {
  return isJson() ? parseJson(body, kBodyValueLimit)
                  : parsePropertyList(body, kPropertyListSizeLimit, kBodyValueLimit);
}

Result<std::string> MediaType::serialize(const Value& value) const {
  return isJson() ? Result<std::string>(serializeJson(value) + "\n") : serializePropertyList(value);
}

}  // namespace tessard
