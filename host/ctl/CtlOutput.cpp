#include "host/ctl/CtlOutput.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "host/JsonCodec.h"

namespace tessard {

namespace {

// Whether a terminal could take the two bytes for a control character: C1, as UTF-8.
bool isLateControl(const std::string& text, std::size_t index) {
  return text[index] == '\xc2' && index + 1 < text.size() && static_cast<signed char>(text[index + 1]) < -96;
}

bool isSet(const char* variable) {
  const char* value = std::getenv(variable);
  return value && *value;
}

}  // namespace

std::string printable(const std::string& text) {
  std::string result;
  bool escapesNext = false;
  for (std::size_t index = 0; index < text.size(); ++index) {
    const auto byte = static_cast<unsigned char>(text[index]);
    const bool late = isLateControl(text, index);
    if (byte >= 0x20 && byte != 0x7f && !late && !escapesNext) {
      result += text[index];
    } else {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\x%02x", byte);
      result += escape;
    }
    escapesNext = late;
  }
  return result;
}

CtlOutput::CtlOutput(bool json)
    : json_(json),
      terminal_(isatty(STDERR_FILENO) == 1),
      colour_(terminal_ && !isSet("NO_COLOR")),
      lineColour_(isatty(STDOUT_FILENO) == 1 && !isSet("NO_COLOR")) {}

std::optional<std::size_t> CtlOutput::columns() const {
  winsize size{};
  if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
  const char* wanted = std::getenv("COLUMNS");
  const long columns = wanted ? std::strtol(wanted, nullptr, 10) : 0;
  return columns > 0 ? std::optional<std::size_t>(columns) : std::nullopt;
}

void CtlOutput::line(const std::string& text) const {
  std::fprintf(stdout, "%s\n", printable(text).c_str());
}

void CtlOutput::line(const std::string& text, Colour colour) const {
  if (!lineColour_ || colour == Colour::none) return line(text);
  const char* code = colour == Colour::red ? "31" : colour == Colour::yellow ? "33" : "90";
  std::fprintf(stdout, "\033[%sm%s\033[0m\n", code, printable(text).c_str());
}

void CtlOutput::text(const std::string& lines) const {
  std::fputs(lines.c_str(), stdout);
}

void CtlOutput::document(const Dictionary& answer) const {
  if (json_) {
    answer_ = answer;
  } else {
    std::fprintf(stdout, "%s\n", serializeJson(answer, true).c_str());
  }
}

void CtlOutput::record(const Dictionary& answer) const {
  goesOn_ = true;
  std::fprintf(stdout, "%s\n", serializeJson(answer).c_str());
}

void CtlOutput::message(const std::string& level, const std::string& text) const {
  std::fflush(stdout);  // where both go to one place, what was said first stands first
  const char* colour = level == "error" ? "\033[31m" : "\033[33m";
  std::fprintf(stderr, "%s%s:%s %s\n", colour_ ? colour : "", level.c_str(), colour_ ? "\033[0m" : "",
               printable(text).c_str());
}

void CtlOutput::note(const std::string& text) const {
  std::fflush(stdout);
  std::fprintf(stderr, "%s\n", printable(text).c_str());
}

int CtlOutput::failure(const std::string& id, const std::string& text, int exitCode) const {
  if (!json_) message("error", text);
  return toldFailure(id, text, exitCode);
}

int CtlOutput::toldFailure(const std::string& id, const std::string& text, int exitCode) const {
  if (error_.empty()) error_ = id;
  reason_ += (reason_.empty() ? "" : " ") + text;
  return exitCode;
}

void CtlOutput::progress(int seconds) const {
  // An answer that comes at once needs no progress.
  if (terminal_ && seconds >= 2) std::fprintf(stderr, "\rwaiting for the answer, %d s ", seconds);
}

void CtlOutput::endProgress() const {
  if (terminal_) std::fputs("\r\033[K", stderr);
}

bool CtlOutput::finish() const {
  if (json_ && !error_.empty()) {
    Dictionary failed = {{"error", error_}, {"message", reason_}};
    if (answer_) failed.set("answer", *answer_);
    answer_ = std::move(failed);
  }
  if (answer_) std::fprintf(stdout, "%s\n", serializeJson(*answer_, !goesOn_).c_str());
  answer_.reset();
  return std::fflush(stdout) == 0 && std::ferror(stdout) == 0;
}

std::string readable(const Value& value) {
  if (const std::string* text = value.asString()) return *text;
  return serializeJson(value);
}

}  // namespace tessard
