#include "platform/journal/JournalingFileSystem.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace tessard {

namespace {

constexpr std::size_t kLookedForEach = 32;

std::string_view withoutSlashesAtEnd(std::string_view path) {
  while (path.size() > 1 && path.ends_with('/')) path.remove_suffix(1);
  return path;
}

std::string keyOf(const JournalDirectory::Place& place) {
  return place.path + '/' + place.name;
}

// Fails when the directory above cannot be opened for the moment: the operation may find it open, and would
// then not be noted. What else is wrong with a path keeps the operation from doing anything.
Result<void> canBeKnown(const JournalDirectory& journal, std::string_view path) {
  const auto directory = journal.open(directoryOf(path));
  return directory || !mayPass(directory.error()) ? Result<void>() : Result<void>(directory.error());
}

}  // namespace

JournalingFileSystem::JournalingFileSystem(FileSystem& behind, PosixFileSystem& posix,
                                           const std::string& root, Log& log)
    : behind_(behind), posix_(posix), log_(log), journal_(behind, root) {}

// Whatever is wrong with a path is for the operation itself to tell: then there is nothing to note.
std::optional<JournalDirectory::Place> JournalingFileSystem::placeOf(std::string_view path) {
  std::string name = lastPathComponent(path);
  if (name.empty() || name == "." || name == ".." || path.find('\0') != std::string_view::npos) {
    return std::nullopt;
  }
  const std::string directory = directoryOf(path);
  auto known = directories_.find(directory);
  if (known == directories_.end()) {
    auto opened = journal_.open(directory);
    if (!opened) return std::nullopt;
    known = directories_.emplace(directory, std::move(opened).value()).first;
  }
  return JournalDirectory::Place{known->second.descriptor.get(), known->second.path, std::move(name)};
}

Result<std::optional<JournalDirectory::Place>> JournalingFileSystem::unnoted(std::string_view path) {
  if (!inRequest_) return std::optional<Place>();
  if (undoUnfinished_) return SystemError(EIO, "an earlier request is not undone yet");
  auto place = placeOf(path);
  if (!place) {
    if (auto known = canBeKnown(journal_, path); !known) return known.error();
    place = placeOf(path);
  }
  if (place && isNoted(*place)) place.reset();
  return place;
}

// A temporary or a backup that is not noted itself, of a file that is, was not there before.
bool JournalingFileSystem::isNoted(const Place& place) const {
  std::string key = keyOf(place);
  if (noted_.contains(key)) return true;
  const std::string_view file = fileBeside(place.name);
  if (file.empty()) return false;
  key.resize(key.size() - place.name.size() + file.size());
  const auto its = noted_.find(key);
  return its != noted_.end() && its->second;
}

void JournalingFileSystem::setNoted(const Place& place, bool covers) {
  noted_.emplace(keyOf(place), covers);
}

Result<void> JournalingFileSystem::remember(std::string_view path) {
  const auto place = unnoted(path);
  if (!place) return place.error();
  return place.value() ? remember(*place.value()) : Result<void>();
}

Result<void> JournalingFileSystem::remember(const Place& place) {
  const std::string_view file = fileBeside(place.name);
  if (file.empty()) {
    if (auto beside = rememberBeside(place); !beside) return beside;
  } else {
    const Place itsFile{place.directory, place.path, std::string(file)};
    if (!isNoted(itsFile)) {
      if (auto noted = remember(itsFile); !noted) return noted;
    }
    if (isNoted(place)) return {};
  }
  const auto noted = journal_.remember(place);
  if (!noted) return noted.error();
  setNoted(place, file.empty() && noted.value());
  return {};
}

Result<void> JournalingFileSystem::rememberBeside(const Place& place) {
  for (const std::string& name : namesBeside(place.name)) {
    const Place beside{place.directory, place.path, name};
    if (noted_.contains(keyOf(beside)) || !mayBeThere(beside)) continue;
    const auto noted = journal_.rememberPresent(beside);
    // A directory is none of ours.
    if (!noted && noted.error().code() != EISDIR) return noted.error();
    if (noted && noted.value()) setNoted(beside, false);
  }
  return {};
}

// Where a thousand files are changed, most of them have nothing beside them, and a list tells that sooner
// than a look for each.
bool JournalingFileSystem::mayBeThere(const Place& place) {
  Beside& beside = beside_[place.path];
  if (++beside.lookedFor <= kLookedForEach) return true;
  if (!beside.names) {
    const auto entries = entriesOf(place.directory);
    if (!entries) return true;
    beside.names.emplace();
    for (const DirectoryEntry& entry : entries.value()) {
      if (!fileBeside(entry.name).empty()) beside.names->insert(entry.name);
    }
  }
  return beside.names->contains(place.name);
}

void JournalingFileSystem::forgetNotes() {
  noted_.clear();
  beside_.clear();
}

// A directory that is to be made, and those above it.
Result<void> JournalingFileSystem::rememberMissing(std::string_view path) {
  path = withoutSlashesAtEnd(path);
  if (!inRequest_ || path == "/" || !path.starts_with('/')) return {};
  if (const auto there = isThere(behind_, path); !there || there.value()) {
    return there ? Result<void>() : Result<void>(there.error());
  }
  const std::string parent = directoryOf(path);
  const auto parentThere = isThere(behind_, parent);
  if (!parentThere) return parentThere.error();
  if (parentThere.value()) return remember(path);
  if (auto noted = rememberMissing(parent); !noted) return noted;
  return journal_.rememberAbsent(placeOfMissing(parent), lastPathComponent(path));
}

// What the path of a directory will be that is not there yet.
std::string JournalingFileSystem::placeOfMissing(const std::string& directory) {
  const auto place = placeOf(directory);
  if (place) return keyOf(*place);
  if (directory == "/" || directory.empty()) return "";
  return placeOfMissing(directoryOf(directory)) + '/' + lastPathComponent(directory);
}

bool JournalingFileSystem::exists(std::string_view path) {
  return behind_.exists(path);
}

Result<FileAttributes> JournalingFileSystem::attributes(std::string_view path) {
  return behind_.attributes(path);
}

Result<std::string> JournalingFileSystem::readFile(std::string_view path, std::size_t limit) {
  return behind_.readFile(path, limit);
}

std::vector<Result<FileFingerprint>> JournalingFileSystem::fingerprints(const std::vector<std::string>& paths,
                                                                        std::size_t limit) {
  return behind_.fingerprints(paths, limit);
}

Result<std::vector<std::string>> JournalingFileSystem::listDirectory(std::string_view path) {
  return behind_.listDirectory(path);
}

Result<void> JournalingFileSystem::createFile(std::string_view path, std::string_view content,
                                              const FileOwnership& ownership, Flush flush) {
  if (auto noted = remember(path); !noted) return noted;
  auto made = behind_.createFile(path, content, ownership, flush);
  if (made && inRequest_ && flush == Flush::later) unflushed_.emplace(path);
  return made;
}

std::vector<Result<FileAttributes>> JournalingFileSystem::createFiles(const std::vector<NewFile>& files) {
  std::vector<Result<void>> noted;
  noted.reserve(files.size());
  for (const NewFile& file : files) noted.push_back(remember(file.path));
  std::vector<Result<FileAttributes>> made;
  if (std::ranges::all_of(noted, &Result<void>::ok)) {
    made = behind_.createFiles(files);
  } else {
    for (std::size_t i = 0; i < files.size(); ++i) {
      made.push_back(noted[i] ? behind_.createFiles({files[i]}).front() : noted[i].error());
    }
  }
  for (std::size_t i = 0; i < files.size(); ++i) {
    if (made[i] && inRequest_) unflushed_.emplace(files[i].path);
  }
  return made;
}

FileCopies JournalingFileSystem::copyFiles(std::string_view from, const std::vector<std::string>& to,
                                           std::size_t limit) {
  FileCopies copies;
  std::vector<std::string> noted;
  for (const std::string& path : to) {
    const auto done = remember(path);
    copies.made.emplace_back(done ? SystemError(0) : done.error());
    if (done) noted.push_back(path);
  }
  FileCopies behind = behind_.copyFiles(from, noted, limit);
  copies.content = std::move(behind.content);
  auto made = behind.made.begin();
  for (std::size_t i = 0; i < to.size(); ++i) {
    if (copies.made[i].error().code() != 0) continue;
    copies.made[i] = std::move(*made++);
    if (copies.made[i] && inRequest_) unflushed_.emplace(to[i]);
  }
  return copies;
}

Result<void> JournalingFileSystem::flush(const std::vector<std::string>& paths) {
  auto flushed = behind_.flush(paths);
  if (!flushed) return flushed;
  if (paths.size() == 1) {
    unflushed_.erase(paths.front());
    return flushed;
  }
  // Whole file systems were.
  std::set<std::string> directories;
  for (const std::string& path : paths) directories.insert(directoryOf(path));
  std::erase_if(unflushed_, [&](const std::string& path) { return directories.contains(directoryOf(path)); });
  return flushed;
}

Result<void> JournalingFileSystem::rename(std::string_view from, std::string_view to) {
  for (const std::string_view path : {from, to}) {
    if (auto noted = remember(path); !noted) return noted;
  }
  auto renamed = behind_.rename(from, to);
  if (renamed && unflushed_.erase(std::string(from)) > 0) unflushed_.emplace(to);
  return renamed;
}

Result<void> JournalingFileSystem::exchange(std::string_view first, std::string_view second) {
  for (const std::string_view path : {first, second}) {
    if (auto noted = remember(path); !noted) return noted;
  }
  auto exchanged = behind_.exchange(first, second);
  if (!exchanged) return exchanged;
  const bool firstWasUnflushed = unflushed_.erase(std::string(first)) > 0;
  const bool secondWasUnflushed = unflushed_.erase(std::string(second)) > 0;
  if (firstWasUnflushed) unflushed_.emplace(second);
  if (secondWasUnflushed) unflushed_.emplace(first);
  return exchanged;
}

Result<void> JournalingFileSystem::remove(std::string_view path) {
  const auto place = unnoted(path);
  if (!place) return place.error();
  if (place.value()) {
    const bool isFile = fileBeside(place.value()->name).empty();
    if (isFile) {
      if (auto beside = rememberBeside(*place.value()); !beside) return beside;
    }
    auto taken = journal_.take(*place.value());
    if (!taken) return taken;
    setNoted(*place.value(), isFile);
    return {};
  }
  auto removed = behind_.remove(path);
  if (removed) unflushed_.erase(std::string(path));
  return removed;
}

Result<void> JournalingFileSystem::createDirectory(std::string_view path, const FileOwnership& ownership,
                                                   bool withParents) {
  if (auto noted = rememberMissing(path); !noted) return noted;
  return behind_.createDirectory(path, ownership, withParents);
}

Result<void> JournalingFileSystem::setOwnership(std::string_view path, const FileOwnership& ownership) {
  if (auto noted = rememberAttributes(path, ownership); !noted) return noted;
  return behind_.setOwnership(path, ownership);
}

Result<void> JournalingFileSystem::rememberAttributes(std::string_view path, const FileOwnership& ownership) {
  if (!inRequest_) return {};
  const auto is = behind_.attributes(path);
  const auto place = placeOf(withoutSlashesAtEnd(path));
  if (!place) return canBeKnown(journal_, path);
  if (!is) return mayPass(is.error()) ? Result<void>(is.error()) : Result<void>();
  const bool same = ownership.owner.value_or(is.value().owner) == is.value().owner &&
                    ownership.group.value_or(is.value().group) == is.value().group &&
                    ownership.permissions.value_or(is.value().permissions) == is.value().permissions;
  if (same) return {};
  if (undoUnfinished_) return SystemError(EIO, "an earlier request is not undone yet");
  const auto status = statusOf({place->directory, place->name});
  return status ? journal_.rememberAttributes(*place, status.value()) : Result<void>(status.error());
}

Result<void> JournalingFileSystem::syncDirectory(std::string_view path) {
  if (!inRequest_) return behind_.syncDirectory(path);
  unsynced_.emplace(path);
  return {};
}

}  // namespace tessard
