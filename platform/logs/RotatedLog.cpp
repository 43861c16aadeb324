#include "platform/logs/RotatedLog.h"

#include <algorithm>
#include <cerrno>

#include "common/Format.h"

namespace tessard {

namespace {

constexpr int kFiles = 100;

}  // namespace

RotatedLog::RotatedLog(int root, std::string path, const LogFile* newest, LogMeter& meter)
    : root_(root), path_(std::move(path)), newest_(newest), meter_(meter) {}

Result<LogFile> RotatedLog::open(int number) {
  const std::string path = fill("%@.%d", {path_, number});
  auto file = LogFile::open(root_, path);
  if (file || file.error().code() != ENOENT) return file;
  return LogFile::openCompressed(root_, path + ".gz", meter_);
}

bool RotatedLog::isKnown(const LogFile& file) const {
  return (newest_ && newest_->isSameAs(file)) ||
         std::ranges::any_of(files_, [&](const auto& known) { return known->isSameAs(file); });
}

const LogFile* RotatedLog::next() {
  while (!failed_ && number_ < kFiles) {
    const int number = number_++;
    auto file = open(number);
    if (!file) {
      if (file.error().code() == ENOENT && number == 0) continue;  // many begin with 1
      failed_ = file.error().code() != ENOENT;
      number_ = kFiles;
      return nullptr;
    }
    if (isKnown(file.value())) continue;
    files_.push_back(std::make_unique<LogFile>(std::move(file).value()));
    return files_.back().get();
  }
  return nullptr;
}

}  // namespace tessard
