#include "config/FileMoments.h"

#include <cstdint>

namespace tessard {

namespace {

// Of the coarse clock, where the timer runs at 100 Hz, the slowest.
constexpr std::int64_t kTickNanoseconds = 10'000'000;

}  // namespace

bool isWithinATick(FileTime from, FileTime to) {
  // Longer differences are all too long, and must not overflow.
  if (to.seconds - from.seconds > 1) return false;
  return (to.seconds - from.seconds) * 1'000'000'000 + (to.nanoseconds - from.nanoseconds) <=
         kTickNanoseconds;
}

FileTime momentOfLook(FileSystem& files, std::string_view path, FileTime now) {
  const auto file = files.attributes(path);
  return momentOfLook(file ? std::optional(file.value()) : std::nullopt, now);
}

FileTime momentOfLook(const std::optional<FileAttributes>& file, FileTime now) {
  if (!file || file->modified <= now) return now;
  return isWithinATick(now, file->modified) ? file->modified : now;
}

}  // namespace tessard
