#include "programs/warden/WardenOutput.h"

#include <sysexits.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <nlohmann/json.hpp>

namespace tessard {

namespace {

using Json = nlohmann::ordered_json;

constexpr std::size_t kShownDigits = 16;

int exitCodeOf(KeychainProblem problem) {
  switch (problem) {
    case KeychainProblem::notFound:
    case KeychainProblem::passPhraseNeeded:
      return EX_NOINPUT;
    case KeychainProblem::notAllowed:
    case KeychainProblem::notPermitted:
    case KeychainProblem::unsafe:
      return EX_NOPERM;
    case KeychainProblem::keyMissing:
    case KeychainProblem::wrongKey:
    case KeychainProblem::damaged:
    case KeychainProblem::newer:
      return EX_UNAVAILABLE;
    case KeychainProblem::busy:
      return EX_TEMPFAIL;
    case KeychainProblem::readOnly:
      return EX_CANTCREAT;
    case KeychainProblem::full:
    case KeychainProblem::io:
      return EX_IOERR;
    default:
      return EX_DATAERR;
  }
}

std::string printable(const std::string& text) {
  std::string result;
  for (const char character : text) {
    const auto byte = static_cast<unsigned char>(character);
    if (byte >= 0x20 && byte != 0x7f) {
      result += character;
    } else {
      std::array<char, 8> escape{};
      std::snprintf(escape.data(), escape.size(), "\\x%02x", byte);
      result += escape.data();
    }
  }
  return result;
}

std::string momentOf(std::int64_t seconds, const char* format) {
  const std::time_t time = seconds;
  std::tm parts{};
  std::array<char, 64> text{};
  if (!::gmtime_r(&time, &parts)) return "";
  return {text.data(), std::strftime(text.data(), text.size(), format, &parts)};
}

Json jsonOf(const CertificateRecord& record) {
  constexpr const char* kRfc3339 = "%Y-%m-%dT%H:%M:%SZ";
  Json json{{"subject", record.subject},
            {"issuer", record.issuer},
            {"serial", record.serial},
            {"sha256", record.sha256},
            {"notBefore", momentOf(record.notBefore, kRfc3339)},
            {"notAfter", momentOf(record.notAfter, kRfc3339)},
            {"expired", record.expired},
            {"hasKey", record.hasKey}};
  if (record.topic) json["topic"] = *record.topic;
  json["preferredFor"] = record.preferredFor;
  return json;
}

Json jsonOf(const std::vector<CertificateRecord>& records) {
  Json json = Json::array();
  for (const CertificateRecord& record : records) json.push_back(jsonOf(record));
  return json;
}

// Bytes that are no UTF-8, as a path may have, become U+FFFD.
void print(const Json& json) {
  std::printf("%s\n", json.dump(2, ' ', false, Json::error_handler_t::replace).c_str());
}

void printLines(const char* title, const std::vector<std::string>& lines) {
  if (lines.empty()) return;
  std::printf("\n%s\n", title);
  for (const std::string& line : lines) std::printf("  %s\n", printable(line).c_str());
}

bool mayColour(int descriptor) {
  const char* refusal = std::getenv("NO_COLOR");
  return ::isatty(descriptor) == 1 && (!refusal || !*refusal);
}

// Characters of a terminal; of the wide ones nobody makes certificates' columns.
std::size_t widthOf(const std::string& text) {
  return static_cast<std::size_t>(std::ranges::count_if(
      text, [](char byte) { return (static_cast<unsigned char>(byte) & 0xc0U) != 0x80; }));
}

std::string joined(const std::vector<std::string>& pieces) {
  std::string text;
  for (const std::string& piece : pieces) text += (text.empty() ? "" : ", ") + printable(piece);
  return text;
}

}  // namespace

WardenOutput::WardenOutput(bool json)
    : json_(json), colourOut_(mayColour(STDOUT_FILENO)), colourErr_(mayColour(STDERR_FILENO)) {}

void WardenOutput::table(const std::vector<CertificateRecord>& certificates) const {
  std::vector<std::array<std::string, 6>> rows = {
      {"SHA-256", "KEY", "EXPIRES", "TOPIC", "PREFERRED FOR", "SUBJECT"}};
  for (const CertificateRecord& record : certificates) {
    rows.push_back({record.sha256.substr(0, kShownDigits), record.hasKey ? "yes" : "no",
                    momentOf(record.notAfter, "%Y-%m-%d") + (record.expired ? " expired" : ""),
                    printable(record.topic.value_or("-")),
                    record.preferredFor.empty() ? "-" : joined(record.preferredFor),
                    printable(record.subject)});
  }
  std::array<std::size_t, 6> widths{};
  for (const auto& row : rows) {
    for (std::size_t column = 0; column < row.size(); ++column) {
      widths[column] = std::max(widths[column], widthOf(row[column]));
    }
  }
  for (const auto& row : rows) {
    std::string line;
    for (std::size_t column = 0; column < row.size(); ++column) {
      line += row[column];
      if (column + 1 < row.size()) line.append(widths[column] - widthOf(row[column]) + 2, ' ');
    }
    const bool marked = colourOut_ && row[2].ends_with("expired");
    std::printf("%s%s%s\n", marked ? "\033[31m" : "", line.c_str(), marked ? "\033[0m" : "");
  }
}

void WardenOutput::listing(const WardenListing& listing) const {
  if (json_) {
    print({{"certificates", jsonOf(listing.certificates)},
           {"passPhraseFiles", listing.passPhraseFiles},
           {"passwordAccounts", listing.passwordAccounts}});
    return;
  }
  if (listing.certificates.empty()) {
    std::fputs("There are no certificates in the keychain.\n", stderr);
  } else {
    table(listing.certificates);
  }
  printLines("Pass phrases of key files", listing.passPhraseFiles);
  printLines("Passwords of accounts", listing.passwordAccounts);
}

void WardenOutput::imported(const ImportReport& report) const {
  if (json_) {
    print({{"certificates", jsonOf(report.certificates)},
           {"added", report.added},
           {"keyAdded", report.keyAdded}});
    return;
  }
  table(report.certificates);
  std::fprintf(stderr, "%zu added%s.\n", report.added,
               report.keyAdded                      ? ", with the private key"
               : report.certificates.front().hasKey ? "; the private key was there before"
                                                    : ", without a private key");
  for (const CertificateRecord& record : report.certificates) {
    if (record.expired) warning("\"" + record.subject + "\" has expired.");
  }
}

void WardenOutput::done(const std::string& what, const CertificateRecord& certificate) const {
  if (json_) {
    print({{what, jsonOf(certificate)}});
  } else {
    std::fprintf(stderr, "%s: %s\n", what.c_str(), printable(certificate.subject).c_str());
  }
}

void WardenOutput::done(const std::string& what, const std::string& thing) const {
  if (json_) {
    print({{what, thing}});
  } else {
    std::fprintf(stderr, "%s: %s\n", what.c_str(), printable(thing).c_str());
  }
}

void WardenOutput::warning(const std::string& text) const {
  std::fprintf(stderr, "%swarning:%s %s\n", colourErr_ ? "\033[33m" : "", colourErr_ ? "\033[0m" : "",
               printable(text).c_str());
}

int WardenOutput::failure(std::string_view id, const std::string& text, int exitCode) const {
  if (json_) {
    print({{"error", id}, {"message", text}});
  } else {
    std::fprintf(stderr, "%serror:%s %s\n", colourErr_ ? "\033[31m" : "", colourErr_ ? "\033[0m" : "",
                 printable(text).c_str());
  }
  return exitCode;
}

int WardenOutput::failure(const KeychainError& error) const {
  return failure(error.id(), error.text + ".", exitCodeOf(error.problem));
}

bool WardenOutput::finish() const {
  return std::fflush(stdout) == 0 && std::ferror(stdout) == 0;
}

}  // namespace tessard
