#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "common/Value.h"

namespace tessard {

/// Where tessardctl writes. Data goes to standard output, everything else to standard error.
class CtlOutput {
 public:
  /// `json`: answers and errors are one JSON document on standard output, which `finish` writes.
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
  /// What the document holds unless the call fails.
  void document(const Dictionary& answer) const;
  /// A JSON document on one line, for output that goes on.
  void record(const Dictionary& answer) const;
  /// A line "warning: ..." or "error: ..." on standard error, coloured on a terminal unless NO_COLOR is set.
  void message(const std::string& level, const std::string& text) const;
  void note(const std::string& text) const;
  /// The end of a failed call: the message, or for the JSON document "error": id and "message": text, with
  /// the answer, where there is one, under "answer". The ids are those of tessardctl(1). Of several failures
  /// the first gives the id. Gives the exit code back.
  int failure(const std::string& id, const std::string& text, int exitCode) const;
  /// The same for one that a person has been told of already.
  int toldFailure(const std::string& id, const std::string& text, int exitCode) const;

  /// Shows on a terminal that the answer is still awaited; nothing elsewhere.
  void progress(int seconds) const;
  void endProgress() const;

  /// Writes the JSON document. False when standard output could not take everything.
  bool finish() const;

 private:
  bool json_;
  bool terminal_;
  bool colour_;
  bool lineColour_;
  // What `finish` is to write.
  mutable std::optional<Dictionary> answer_;
  mutable std::string error_;
  mutable std::string reason_;
  mutable bool goesOn_ = false;  // whether there were records
};

/// A text as it is shown: what a terminal would obey stands as its number.
std::string printable(const std::string& text);

/// A value in one line for people, without characters that a terminal would obey.
std::string readable(const Value& value);

}  // namespace tessard
