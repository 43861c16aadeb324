#include "tests/support/FaultyFileSystem.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <ostream>
#include <stdexcept>

namespace tessard {

namespace {

constexpr std::array<std::string_view, 4> kReadings = {"exists", "attributes", "readFile", "listDirectory"};
constexpr std::array<std::string_view, 9> kChanges = {"createFile",      "copyFile",     "flush",
                                                      "rename",          "exchange",     "remove",
                                                      "createDirectory", "setOwnership", "syncDirectory"};

bool isReading(std::string_view operation) {
  return std::ranges::find(kReadings, operation) != kReadings.end();
}

std::string known(std::string_view operation) {
  if (!isReading(operation) && std::ranges::find(kChanges, operation) == kChanges.end()) {
    throw std::invalid_argument("no operation of a file system: " + std::string(operation));
  }
  return std::string(operation);
}

std::string textOf(const FaultyFileSystem::Call& call) {
  return call.operation + " " + call.path + (call.secondPath.empty() ? "" : " " + call.secondPath);
}

template <class T>
int errorOf(const Result<T>& result) {
  return result ? 0 : result.error().code();
}

}  // namespace

bool FaultyFileSystem::Call::operator==(const Call& other) const {
  return textOf(*this) == textOf(other) && ownership.owner == other.ownership.owner &&
         ownership.group == other.ownership.group && ownership.permissions == other.ownership.permissions &&
         error == other.error;
}

void FaultyFileSystem::failNth(std::string_view operation, int count, int error) {
  if (count < 1) throw std::invalid_argument("calls are counted from 1");
  faults_.push_back({known(operation), "", count, error});
}

void FaultyFileSystem::failAll(std::string_view operation, int error) {
  faults_.push_back({known(operation), "", 0, error});
}

void FaultyFileSystem::failPath(std::string_view suffix, int error) {
  faults_.push_back({"", std::string(suffix), 0, error});
}

void FaultyFileSystem::failPath(std::string_view operation, std::string_view suffix, int error) {
  faults_.push_back({known(operation), std::string(suffix), 0, error});
}

void FaultyFileSystem::fillDisk() {
  failAll("createFile", ENOSPC);
  failAll("copyFile", ENOSPC);
  failAll("createDirectory", ENOSPC);
}

void FaultyFileSystem::heal() {
  faults_.clear();
}

std::vector<FaultyFileSystem::Call> FaultyFileSystem::calls(std::string_view operation) const {
  std::vector<Call> chosen;
  std::ranges::copy_if(calls_, std::back_inserter(chosen),
                       [name = known(operation)](const Call& call) { return call.operation == name; });
  return chosen;
}

std::vector<std::string> FaultyFileSystem::journal() const {
  std::vector<std::string> lines;
  std::ranges::transform(calls_, std::back_inserter(lines), textOf);
  return lines;
}

std::vector<std::string> FaultyFileSystem::changes() const {
  std::vector<std::string> lines;
  for (const Call& call : calls_) {
    if (!isReading(call.operation)) lines.push_back(textOf(call));
  }
  return lines;
}

int FaultyFileSystem::faultFor(const Call& call) {
  int error = 0;
  for (Fault& fault : faults_) {
    if (!fault.operation.empty() && fault.operation != call.operation) continue;
    const bool meant = call.path.ends_with(fault.suffix) ||
                       (!call.secondPath.empty() && call.secondPath.ends_with(fault.suffix));
    if (!meant || fault.countdown < 0) continue;
    if (fault.countdown > 0) {
      // Spent faults stay behind with a negative count.
      if (--fault.countdown > 0) continue;
      fault.countdown = -1;
    }
    if (error == 0) error = fault.error;
  }
  return error;
}

template <class Answer>
Answer FaultyFileSystem::carryOut(Call call, const std::function<Answer()>& operation) {
  if (beforeCall) beforeCall(call);
  call.error = faultFor(call);
  Answer answer = call.error == 0 ? operation() : Answer(SystemError(call.error));
  call.error = errorOf(answer);
  calls_.push_back(std::move(call));
  return answer;
}

bool FaultyFileSystem::exists(std::string_view path) {
  Call call{"exists", std::string(path), "", {}, 0};
  if (beforeCall) beforeCall(call);
  call.error = faultFor(call);
  calls_.push_back(call);
  return call.error == 0 && behind_.exists(path);
}

Result<FileAttributes> FaultyFileSystem::attributes(std::string_view path) {
  return carryOut<Result<FileAttributes>>({"attributes", std::string(path), "", {}, 0},
                                          [&] { return behind_.attributes(path); });
}

Result<std::string> FaultyFileSystem::readFile(std::string_view path, std::size_t limit) {
  return carryOut<Result<std::string>>({"readFile", std::string(path), "", {}, 0},
                                       [&] { return behind_.readFile(path, limit); });
}

std::vector<Result<FileFingerprint>> FaultyFileSystem::fingerprints(const std::vector<std::string>& paths,
                                                                    std::size_t limit) {
  std::vector<Result<FileFingerprint>> all;
  for (const std::string& path : paths) {
    all.push_back(carryOut<Result<FileFingerprint>>(
        {"readFile", path, "", {}, 0}, [&] { return behind_.fingerprints({path}, limit).front(); }));
  }
  return all;
}

Result<void> FaultyFileSystem::createFile(std::string_view path, std::string_view content,
                                          const FileOwnership& ownership, Flush flush) {
  return carryOut<Result<void>>({"createFile", std::string(path), "", ownership, 0},
                                [&] { return behind_.createFile(path, content, ownership, flush); });
}

Result<void> FaultyFileSystem::flush(const std::vector<std::string>& paths) {
  Result<void> flushed;
  for (const std::string& path : paths) {
    const bool last = &path == &paths.back();
    auto done = carryOut<Result<void>>({"flush", path, "", {}, 0},
                                       [&] { return last && flushed ? behind_.flush(paths) : flushed; });
    if (flushed) flushed = std::move(done);
  }
  return flushed;
}

std::vector<Result<FileAttributes>> FaultyFileSystem::createFiles(const std::vector<NewFile>& files) {
  std::vector<Result<FileAttributes>> made;
  for (const NewFile& file : files) {
    made.push_back(carryOut<Result<FileAttributes>>({"createFile", file.path, "", file.ownership, 0},
                                                    [&] { return behind_.createFiles({file}).front(); }));
  }
  return made;
}

FileCopies FaultyFileSystem::copyFiles(std::string_view from, const std::vector<std::string>& to,
                                       std::size_t limit) {
  const std::size_t first = calls_.size();
  std::vector<std::string> wanted;
  for (const std::string& path : to) {
    const auto done =
        carryOut<Result<void>>({"copyFile", std::string(from), path, {}, 0}, [] { return Result<void>(); });
    if (done) wanted.push_back(path);
  }
  FileCopies behind = behind_.copyFiles(from, wanted, limit);
  FileCopies copies{std::move(behind.content), {}};
  auto made = behind.made.begin();
  for (std::size_t i = 0; i < to.size(); ++i) {
    int& error = calls_[first + i].error;
    copies.made.push_back(error == 0 ? std::move(*made++) : SystemError(error));
    error = errorOf(copies.made.back());
  }
  return copies;
}

Result<void> FaultyFileSystem::rename(std::string_view from, std::string_view to) {
  return carryOut<Result<void>>({"rename", std::string(from), std::string(to), {}, 0},
                                [&] { return behind_.rename(from, to); });
}

Result<void> FaultyFileSystem::exchange(std::string_view first, std::string_view second) {
  return carryOut<Result<void>>({"exchange", std::string(first), std::string(second), {}, 0},
                                [&] { return behind_.exchange(first, second); });
}

Result<void> FaultyFileSystem::remove(std::string_view path) {
  return carryOut<Result<void>>({"remove", std::string(path), "", {}, 0},
                                [&] { return behind_.remove(path); });
}

Result<void> FaultyFileSystem::createDirectory(std::string_view path, const FileOwnership& ownership,
                                               bool withParents) {
  return carryOut<Result<void>>({"createDirectory", std::string(path), "", ownership, 0},
                                [&] { return behind_.createDirectory(path, ownership, withParents); });
}

Result<void> FaultyFileSystem::setOwnership(std::string_view path, const FileOwnership& ownership) {
  return carryOut<Result<void>>({"setOwnership", std::string(path), "", ownership, 0},
                                [&] { return behind_.setOwnership(path, ownership); });
}

Result<std::vector<std::string>> FaultyFileSystem::listDirectory(std::string_view path) {
  return carryOut<Result<std::vector<std::string>>>({"listDirectory", std::string(path), "", {}, 0},
                                                    [&] { return behind_.listDirectory(path); });
}

Result<void> FaultyFileSystem::syncDirectory(std::string_view path) {
  return carryOut<Result<void>>({"syncDirectory", std::string(path), "", {}, 0},
                                [&] { return behind_.syncDirectory(path); });
}

void PrintTo(const FaultyFileSystem::Call& call, std::ostream* out) {
  *out << textOf(call);
  if (call.error != 0) *out << " (error " << call.error << ")";
}

}  // namespace tessard
