#pragma once

#include <optional>
#include <string>
#include <utility>
#include <variant>

namespace tessard {

/// Why an operation on something outside failed. `code` is an errno value (0 when the reason is no errno,
/// such as malformed content); `description()` is the sentence that log lines show.
class SystemError {
 public:
  explicit SystemError(int code) : code_(code) {}
  SystemError(int code, std::string text) : code_(code), text_(std::move(text)) {}

  /// The error of the system call that has just failed on this thread.
  static SystemError last();

  int code() const { return code_; }
  std::string description() const;

 private:
  int code_;
  std::string text_;
};

/// The value of an operation that can fail, or the reason why it failed. Never empty; `value()` may be called
/// only after `ok()`, `error()` only when not `ok()`.
template <class T>
class [[nodiscard]] Result {
 public:
  Result(T value) : content_(std::in_place_index<0>, std::move(value)) {}
  Result(SystemError error) : content_(std::in_place_index<1>, std::move(error)) {}

  bool ok() const { return content_.index() == 0; }
  explicit operator bool() const { return ok(); }
  const T& value() const& { return std::get<0>(content_); }
  T& value() & { return std::get<0>(content_); }
  T&& value() && { return std::get<0>(std::move(content_)); }
  const SystemError& error() const { return std::get<1>(content_); }

 private:
  std::variant<T, SystemError> content_;
};

template <>
class [[nodiscard]] Result<void> {
 public:
  Result() = default;
  Result(SystemError error) : error_(std::move(error)) {}

  bool ok() const { return !error_; }
  explicit operator bool() const { return ok(); }
  const SystemError& error() const { return *error_; }

 private:
  std::optional<SystemError> error_;
};

}  // namespace tessard
