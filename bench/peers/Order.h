#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

// What the programs that stand for bare use of an XML library share: the order, one line a step, and the same
// replacement of files that the floor makes. `bench/peers.py` writes orders.

namespace order {

inline std::vector<std::string> split(std::string_view text, char separator) {
  std::vector<std::string> parts;
  while (true) {
    const auto at = text.find(separator);
    parts.emplace_back(text.substr(0, at));
    if (at == std::string_view::npos) return parts;
    text.remove_prefix(at + 1);
  }
}

[[noreturn]] inline void fail(const std::string& what) {
  std::perror(what.c_str());
  std::exit(70);
}

inline void own(const std::string& path) {
  if (geteuid() == 0 && chown(path.c_str(), 84, 0) != 0) fail(path);
  if (chmod(path.c_str(), 0600) != 0) fail(path);
}

// In place of the file there is.
inline void copy(const std::string& from, const std::string& path) {
  std::error_code problem;
  std::filesystem::remove(path, problem);
  if (!std::filesystem::copy_file(from, path, problem)) fail(path);
  own(path);
}

inline void flushFileSystemOf(const std::string& path) {
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0 || syncfs(file) != 0) fail(path);
  close(file);
}

inline void replace(const std::string& path) {
  if (std::rename(path.c_str(), (path + ".bak").c_str()) != 0) fail(path);
  if (std::rename((path + ".tmp").c_str(), path.c_str()) != 0) fail(path);
}

// `Document` has load, save, set, have, drop, list and text, which is what the letters stand for; their paths
// are element names below the root.
template <class Document>
int carryOut(const char* orderFile) {
  std::ifstream lines(orderFile);
  std::vector<std::string> written;
  std::string path;
  Document document;
  bool changed = false;
  const auto finish = [&] {
    if (!changed) return;
    if (!document.save(path + ".tmp")) fail(path);
    own(path + ".tmp");
    written.push_back(path);
    changed = false;
  };
  for (std::string line; std::getline(lines, line);) {
    const auto words = split(line, '\t');
    const char kind = words[0][0];
    if (kind == 'F' || kind == 'C') {
      finish();
      path = words[1];
      if (kind == 'C') copy(words[2], path);
      if (!document.load(path)) fail(path);
      continue;
    }
    const auto names = split(words[1], '/');
    if (kind == 'R') {
      std::printf("%s=%s\n", words[2].c_str(), document.text(names).c_str());
      continue;
    }
    changed = true;
    if (kind == 'S') document.set(names, words[2]);
    if (kind == 'H') document.have(names);
    if (kind == 'D') document.drop(names);
    if (kind == 'L') document.list(names, split(words[2], '|'), split(words[3], '|'));
  }
  finish();
  if (!written.empty()) flushFileSystemOf(written.front());
  for (const std::string& name : written) replace(name);
  return 0;
}

}  // namespace order
