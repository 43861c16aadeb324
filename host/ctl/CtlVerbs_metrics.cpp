#include <sysexits.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "common/Format.h"
#include "host/ctl/CtlVerbGroups.h"
#include "platform/PosixFileSystem.h"

namespace tessard {

namespace {

// A collector finds the old file or the new one, whole.
Result<void> replaceFile(const std::string& path, const std::string& content) {
  PosixFileSystem files;
  const std::string fresh = fill("%@.%d", {path, ::getpid()});
  auto written = files.createFile(fresh, content, {std::nullopt, std::nullopt, 0644}, Flush::now);
  if (!written) return written;
  auto renamed = files.rename(fresh, path);
  if (!renamed) static_cast<void>(files.remove(fresh));
  return renamed;
}

int exitCodeFor(int code) {
  return code == EACCES || code == EPERM ? EX_NOPERM : EX_CANTCREAT;
}

}  // namespace

int runMetrics(CtlCall& call) {
  if (call.arguments().words.size() > 1) return call.usage("\"metrics\" takes no arguments.");
  int exitCode = EX_OK;
  const auto text = call.textAt("/v1/metrics", exitCode);
  if (!text) return exitCode;
  const auto& path = call.arguments().output;
  if (path) {
    const auto replaced = replaceFile(std::filesystem::absolute(*path).string(), *text);
    if (replaced) return EX_OK;
    return call.output().failure(
        "cannot-write", fill("\"%@\" cannot be written: %@.", {*path, replaced.error().description()}),
        exitCodeFor(replaced.error().code()));
  }
  if (call.output().json()) {
    call.output().document({{"metrics", *text}});
  } else {
    call.output().text(*text);
  }
  return EX_OK;
}

}  // namespace tessard
