#include "platform/journal/FormerFiles.h"

#include <cerrno>

#include "common/Format.h"

namespace tessard {

namespace {

SystemError unchangeable() {
  return SystemError(EROFS);
}

}  // namespace

// Where the file is to be read; ENOENT for one that was made since.
Result<std::string> FormerFiles::placeOf(std::string_view path) const {
  const auto directory = journal_.open(directoryOf(path));
  if (!directory) return std::string(path);
  const EndedJournal::Note* note = last_.find(directory.value().path, lastPathComponent(path));
  if (!note) return std::string(path);
  if (!note->present) return SystemError(ENOENT);
  std::string place = fill("%@/%@/%@", {kJournalHome, kLastJournal, kPresent});
  for (const std::string& name : mirrorNamesOf(note->path)) place += '/' + name;
  return place + '/' + note->name;
}

bool FormerFiles::exists(std::string_view path) {
  const auto place = placeOf(path);
  return place && files_.exists(place.value());
}

Result<FileAttributes> FormerFiles::attributes(std::string_view path) {
  const auto place = placeOf(path);
  return place ? files_.attributes(place.value()) : place.error();
}

Result<std::string> FormerFiles::readFile(std::string_view path, std::size_t limit) {
  const auto place = placeOf(path);
  return place ? files_.readFile(place.value(), limit) : Result<std::string>(place.error());
}

std::vector<Result<FileFingerprint>> FormerFiles::fingerprints(const std::vector<std::string>& paths,
                                                               std::size_t limit) {
  std::vector<Result<FileFingerprint>> all;
  for (const std::string& path : paths) {
    const auto place = placeOf(path);
    all.push_back(place ? files_.fingerprints({place.value()}, limit).front() : place.error());
  }
  return all;
}

Result<std::vector<std::string>> FormerFiles::listDirectory(std::string_view path) {
  return files_.listDirectory(path);
}

Result<void> FormerFiles::createFile(std::string_view /*path*/, std::string_view /*content*/,
                                     const FileOwnership& /*ownership*/, Flush /*flush*/) {
  return unchangeable();
}

std::vector<Result<FileAttributes>> FormerFiles::createFiles(const std::vector<NewFile>& files) {
  return std::vector<Result<FileAttributes>>(files.size(), unchangeable());
}

FileCopies FormerFiles::copyFiles(std::string_view /*from*/, const std::vector<std::string>& to,
                                  std::size_t /*limit*/) {
  return {"", std::vector<Result<FileAttributes>>(to.size(), unchangeable())};
}

Result<void> FormerFiles::flush(const std::vector<std::string>& /*paths*/) {
  return {};
}

Result<void> FormerFiles::rename(std::string_view /*from*/, std::string_view /*to*/) {
  return unchangeable();
}

Result<void> FormerFiles::exchange(std::string_view /*first*/, std::string_view /*second*/) {
  return unchangeable();
}

Result<void> FormerFiles::remove(std::string_view /*path*/) {
  return unchangeable();
}

Result<void> FormerFiles::createDirectory(std::string_view /*path*/, const FileOwnership& /*ownership*/,
                                          bool /*withParents*/) {
  return unchangeable();
}

Result<void> FormerFiles::setOwnership(std::string_view /*path*/, const FileOwnership& /*ownership*/) {
  return unchangeable();
}

Result<void> FormerFiles::syncDirectory(std::string_view /*path*/) {
  return {};
}

}  // namespace tessard
