#include "platform/accounts/AccountFiles.h"

#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>

#include "common/Format.h"
#include "common/Text.h"

namespace tessard {

namespace {

constexpr std::size_t kFileLimit = 64UL * 1024 * 1024;
constexpr std::size_t kFirstBuffer = 4096;

struct CloseStream {
  void operator()(FILE* stream) const { static_cast<void>(std::fclose(stream)); }
};

Result<std::string> contentOf(FileSystem& files, const char* path) {
  auto content = files.readFile(path, kFileLimit);
  if (content) return content;
  return SystemError(content.error().code(), fill("%@: %@", {path, content.error().description()}));
}

std::string text(const char* field) {
  return field ? field : "";
}

UserEntry entryOf(const passwd& entry) {
  return {text(entry.pw_name),         entry.pw_uid,       entry.pw_gid,
          text(entry.pw_gecos),        text(entry.pw_dir), text(entry.pw_shell),
          text(entry.pw_passwd) == "x"};
}

GroupEntry entryOf(const group& entry) {
  GroupEntry found{text(entry.gr_name), entry.gr_gid, {}};
  for (char** member = entry.gr_mem; member && *member; ++member) found.members.emplace_back(*member);
  return found;
}

/// Every entry that the reading function of the C library finds.
template <class Entry, class Raw>
Result<std::vector<Entry>> entriesIn(FileSystem& files, const char* path,
                                     int (*next)(FILE*, Raw*, char*, std::size_t, Raw**)) {
  auto content = contentOf(files, path);
  if (!content) return content.error();
  std::vector<Entry> entries;
  std::string& bytes = content.value();
  if (bytes.empty()) return entries;
  const std::unique_ptr<FILE, CloseStream> stream(fmemopen(bytes.data(), bytes.size(), "r"));
  if (!stream) return SystemError::last();
  std::string buffer(kFirstBuffer, '\0');
  while (true) {
    Raw raw{};
    Raw* found = nullptr;
    const int status = next(stream.get(), &raw, buffer.data(), buffer.size(), &found);
    if (status == ERANGE && buffer.size() <= bytes.size() * 16) {
      buffer.resize(buffer.size() * 2);
      continue;
    }
    if (status != 0 && status != ENOENT) return SystemError(status, fill("%@ cannot be read", {path}));
    if (!found) return entries;
    entries.push_back(entryOf(raw));
  }
}

template <class Entry>
Result<Entry> named(Result<std::vector<Entry>> entries, std::string_view name, const char* kind) {
  if (!entries) return entries.error();
  const auto found = std::ranges::find(entries.value(), name, &Entry::name);
  if (found != entries.value().end()) return std::move(*found);
  return SystemError(ENOENT, fill("there is no %@ \"%@\"", {kind, name}));
}

}  // namespace

Result<std::vector<UserEntry>> usersIn(FileSystem& files) {
  return entriesIn<UserEntry, passwd>(files, kPasswdFile, fgetpwent_r);
}

Result<std::vector<GroupEntry>> groupsIn(FileSystem& files) {
  return entriesIn<GroupEntry, group>(files, kGroupFile, fgetgrent_r);
}

Result<UserEntry> userNamed(FileSystem& files, std::string_view name) {
  return named(usersIn(files), name, "user");
}

Result<GroupEntry> groupNamed(FileSystem& files, std::string_view name) {
  return named(groupsIn(files), name, "group");
}

Result<bool> hasShadowLine(FileSystem& files, std::string_view name) {
  const auto content = contentOf(files, kShadowFile);
  if (!content && content.error().code() == ENOENT) return false;
  if (!content) return content.error();
  const std::string start = std::string(name) + ":";
  return content.value().starts_with(start) || content.value().find("\n" + start) != std::string::npos;
}

}  // namespace tessard
