#include "programs/warden/KeyFiles.h"

#include <fcntl.h>

#include <cerrno>
#include <filesystem>
#include <optional>

#include "common/FileSystem.h"
#include "common/Format.h"
#include "platform/PosixFileSystem.h"
#include "platform/RootDirectory.h"

namespace tessard {

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kSizeLimit = std::size_t{1024} * 1024;

// What is left of the path below the directory, with a slash in front.
std::optional<std::string> below(const std::string& directory, const std::string& path) {
  if (directory == "/") return path;
  if (!path.starts_with(directory + "/")) return std::nullopt;
  return path.substr(directory.size());
}

std::string normal(const fs::path& path) {
  std::string text = path.lexically_normal().string();
  while (text.size() > 1 && text.ends_with('/')) text.pop_back();
  return text;
}

}  // namespace

Result<std::string> systemPathOf(const std::string& root, const std::string& machinePath) {
  std::error_code problem;
  const fs::path absolute = fs::absolute(machinePath, problem);
  if (problem) return SystemError(problem.value());
  const fs::path realRoot = fs::canonical(root, problem);
  if (problem) return SystemError(problem.value(), fill("%@: %@", {root, problem.message()}));
  auto path = below(normal(root), normal(absolute));
  if (!path) path = below(realRoot.string(), normal(absolute));
  if (!path) return SystemError(EINVAL, fill("%@ is not below %@", {machinePath, root}));
  const auto directory = openBelowRoot(root, directoryOf(*path), O_PATH | O_DIRECTORY);
  if (!directory) return *path;
  const auto real = realPathOf(directory.value());
  if (!real) return real.error();
  const auto realBelow = below(realRoot.string(), real.value() + "/" + lastPathComponent(*path));
  return normal(realBelow.value_or(*path));
}

Result<std::string> readSystemFile(const std::string& root, const std::string& systemPath) {
  return PosixFileSystem(root).readFile(systemPath, kSizeLimit);
}

}  // namespace tessard
