#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "common/Value.h"

namespace tessard {

/// Where tessardctl writes. Data goes to standard output, everything else to standard error.
class CtlOutput {
 public:
  /// `json`: answers and errors are one JSON document on standard output.
  explicit CtlOutput(bool json);

  bool json() const { return json_; }
  bool terminal() const { return terminal_; }  ///< whether a person sees standard error as it is written

  /// The width of the terminal that standard output is; absent where it is none, unless COLUMNS says so.
  std::optional<std::size_t> columns() const;

  void line(const std::string& text) const;
  enum class Colour { none, grey, yellow, red };
  /// A line that is coloured where standard output is a terminal, unless NO_COLOR is set.
  void line(const std::string& text, Colour colour) const;
  /// Lines that are written as they are.
  void text(const std::string& lines) const;
  void document(const Dictionary& answer) const;
  /// A JSON document on one line, for output that goes on.
  void record(const Dictionary& answer) const;
  /// A line "warning: ..." or "error: ..." on standard error, coloured on a terminal unless NO_COLOR is set.
  void message(const std::string& level, const std::string& text) const;
  void note(const std::string& text) const;
  /// The end of a failed call: the message, or the JSON document {"error": id, "message": text}. Gives the
  /// exit code back.
  int failure(const std::string& id, const std::string& text, int exitCode) const;

  /// Shows on a terminal that the answer is still awaited; nothing elsewhere.
  void progress(int seconds) const;
  void endProgress() const;

  /// False when standard output could not take everything.
  bool finish() const;

 private:
  bool json_;
  bool terminal_;
  bool colour_;
  bool lineColour_;
};

/// A text as it is shown: what a terminal would obey stands as its number.
std::string printable(const std::string& text);

/// A value in one line for people, without characters that a terminal would obey.
std::string readable(const Value& value);

}  // namespace tessard
