#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "common/Result.h"
#include "common/Value.h"

namespace tessard {

/// How many values a body may hold. Each takes a hundred bytes or so, however short its text is.
inline constexpr std::size_t kBodyValueLimit = 32768;

/// A form that bodies can have, by the media type's name: "application/json", or one of "application/xml",
/// "text/xml" and "application/x-plist" for property lists.
class MediaType {
 public:
  /// The type that a Content-Type header names, without regard to upper and lower case. Absent for unknown
  /// types and for character sets other than UTF-8 and US-ASCII.
  static std::optional<MediaType> fromContentType(std::string_view header);

  /// The type for an answer: what the Accept header likes best, at equal liking `sent`, else what the header
  /// lists first. `sent` also where there is no header, and where it names nothing that we have.
  static MediaType forAnswer(const std::optional<std::string>& accept, const MediaType& sent);

  static MediaType json() { return MediaType("application/json"); }

  const std::string& name() const { return name_; }
  bool isJson() const { return name_ == "application/json"; }

  /// Fails with a sentence on anything malformed, and on more than `kBodyValueLimit` values.
  Result<Value> parse(std::string_view body) const;
  /// Fails when a property list cannot hold the value.
  Result<std::string> serialize(const Value& value) const;

  bool operator==(const MediaType&) const = default;

 private:
  explicit MediaType(std::string name) : name_(std::move(name)) {}
  static std::optional<MediaType> named(const std::string& name);

  std::string name_;
};

}  // namespace tessard
