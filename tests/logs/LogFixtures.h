#pragma once

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <zlib.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "platform/logs/LinuxLogReader.h"
#include "tests/support/ScratchRoot.h"

namespace tessard {

inline const std::string kLog = "/var/log/service/service.log";

/// "PREFIX 1" to "PREFIX count", each with its end.
inline std::string numberedLines(const std::string& prefix, int count) {
  std::string text;
  for (int number = 1; number <= count; ++number) text += prefix + " " + std::to_string(number) + "\n";
  return text;
}

/// A log on a scratch root, and a reader of it.
struct LogTest : testing::Test {
  ScratchRoot root;
  LinuxLogReader reader{root.path()};
  static constexpr std::uint64_t kPlenty = 1'000'000;

  static LogQuery newest(std::uint64_t lines, std::vector<std::string> filters = {}) {
    return {.path = kLog, .lines = lines, .bytes = kPlenty, .filters = std::move(filters)};
  }
  static LogQuery since(const std::string& position) {
    return {.path = kLog, .lines = {}, .bytes = kPlenty, .position = position};
  }

  /// A query that succeeds; otherwise the test has failed and the excerpt says why.
  LogExcerpt read(const LogQuery& query) {
    auto excerpt = reader.read(query);
    if (excerpt) return std::move(excerpt).value();
    ADD_FAILURE() << excerpt.error().description();
    return {};
  }
  int errorOf(const LogQuery& query) {
    const auto excerpt = reader.read(query);
    return excerpt ? 0 : excerpt.error().code();
  }

  void append(const std::string& text, const std::string& path = kLog) const {
    std::ofstream(root.hostPath(path), std::ios::app | std::ios::binary) << text;
  }
  void rename(const std::string& from, const std::string& to) const {
    std::filesystem::rename(root.hostPath(from), root.hostPath(to));
  }
  void copy(const std::string& from, const std::string& to) const {
    std::filesystem::copy_file(root.hostPath(from), root.hostPath(to));
  }
  void resize(const std::string& path, std::uint64_t size) const {
    std::filesystem::resize_file(root.hostPath(path), size);
  }
  void writeCompressed(const std::string& path, const std::string& text) const {
    root.write(path, "");
    gzFile file = gzopen(root.hostPath(path).c_str(), "wb");
    gzwrite(file, text.data(), static_cast<unsigned>(text.size()));
    gzclose(file);
  }
  /// "NAME.1" becomes "NAME.2" and so on; then the log itself becomes "NAME.1".
  void rotate() const {
    for (int number = 8; number > 0; --number) {
      const std::string from = kLog + "." + std::to_string(number);
      if (root.exists(from)) rename(from, kLog + "." + std::to_string(number + 1));
    }
    rename(kLog, kLog + ".1");
  }
};

/// The bytes that this process has asked files for so far.
inline std::uint64_t bytesReadByProcess() {
  std::ifstream counters("/proc/self/io");
  std::string name;
  std::uint64_t number = 0;
  counters >> name >> number;
  return number;
}

}  // namespace tessard
