// check_user_access UID PATH: may that user write, and search, the directory? The kernel itself is asked, as
// the user, so that ids, groups, access control lists and the mount's state all count.

#include <fcntl.h>
#include <grp.h>
#include <linux/capability.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace {

enum Answer : int { kYes = 0, kNo = 1, kCannotTell = 2 };

constexpr gid_t kNobodysGroup = 65534;
constexpr std::size_t kLongestAccountRecord = 1'048'576;

constexpr const char* kUsage = "usage: check_user_access UID PATH\n";
constexpr const char* kHelp =
    "Tells whether a user may write in a directory (make and remove entries in it).\n"
    "\n"
    "  UID   the user's number, in decimal digits; an account need not exist\n"
    "  PATH  the directory\n"
    "\n"
    "Exit status: 0 yes; 1 no, with the reason on standard error; 2 wrong use, or it\n"
    "cannot be told. Only root can ask about another user.\n";

Answer complain(Answer answer, std::string_view subject, int error) {
  std::fprintf(stderr, "check_user_access: %.*s: %s\n", static_cast<int>(subject.size()), subject.data(),
               std::strerror(error));
  return answer;
}

// A user's number. The highest one is none: the kernel's calls read it as "leave as it is".
std::optional<uid_t> userNumber(std::string_view text) {
  uid_t number = 0;
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || rest != end || number == std::numeric_limits<uid_t>::max()) return std::nullopt;
  return number;
}

// Errors that say what the path is or that the user has no way there, as against those of the machine.
bool meansNo(int error) {
  switch (error) {
    case EACCES:
    case EPERM:
    case EROFS:
    case ENOENT:
    case ENOTDIR:
    case ELOOP:
    case ENAMETOOLONG:
      return true;
    default:
      return false;
  }
}

Answer askKernel(const char* path) {
  struct stat status {};
  if (::stat(path, &status) != 0) return complain(meansNo(errno) ? kNo : kCannotTell, path, errno);
  if (!S_ISDIR(status.st_mode)) return complain(kNo, path, ENOTDIR);
  if (::faccessat(AT_FDCWD, path, W_OK | X_OK, AT_EACCESS) == 0) return kYes;
  return complain(meansNo(errno) ? kNo : kCannotTell, path, errno);
}

struct Groups {
  gid_t primary = kNobodysGroup;
  std::vector<gid_t> all;
};

// The groups of the user's account; those of nobody when the user has none. Absent, with errno set, when the
// accounts cannot be read.
std::optional<Groups> groupsOf(uid_t user) {
  passwd record{};
  passwd* account = nullptr;
  std::vector<char> buffer(4096);
  int error = 0;
  while ((error = ::getpwuid_r(user, &record, buffer.data(), buffer.size(), &account)) == ERANGE &&
         buffer.size() < kLongestAccountRecord) {
    buffer.resize(buffer.size() * 2);
  }
  if (!account) {
    if (error == 0 || error == ENOENT || error == ESRCH) return Groups{};
    errno = error;
    return std::nullopt;
  }
  Groups groups{record.pw_gid, std::vector<gid_t>(64)};
  int count = static_cast<int>(groups.all.size());
  while (::getgrouplist(record.pw_name, record.pw_gid, groups.all.data(), &count) < 0) {
    if (count <= static_cast<int>(groups.all.size())) {
      errno = ENOMEM;
      return std::nullopt;
    }
    groups.all.resize(static_cast<std::size_t>(count));
  }
  groups.all.resize(static_cast<std::size_t>(count));
  return groups;
}

// A change of user takes the capabilities away only where the process was not told to keep them.
bool dropCapabilities() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> none{};
  return ::syscall(SYS_capset, &header, none.data()) == 0;
}

// For good: real, effective and saved ids.
bool become(uid_t user) {
  const auto groups = groupsOf(user);
  return groups && ::setgroups(groups->all.size(), groups->all.data()) == 0 &&
         ::setresgid(groups->primary, groups->primary, groups->primary) == 0 &&
         ::setresuid(user, user, user) == 0 && (user == 0 || dropCapabilities());
}

// A process that has become the user belongs to that user, who may kill it, which is no "yes". Looking into
// it and changing its answer is kept from the user, by the kernel at a change of ids as by the first line
// here.
Answer askAs(uid_t user, std::string_view userText, const char* path) {
  if (::prctl(PR_SET_DUMPABLE, 0) != 0 || !become(user)) return complain(kCannotTell, userText, errno);
  return askKernel(path);
}

Answer wrongUse(const char* reason) {
  std::fprintf(stderr, "check_user_access: %s\n%s", reason, kUsage);
  return kCannotTell;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
    std::printf("%s\n%s", kUsage, kHelp);
    return 0;
  }
  if (argc == 2 && std::strcmp(argv[1], "--version") == 0) {
    std::printf("check_user_access %s\n", TESSARD_VERSION);
    return 0;
  }
  if (argc != 3) return wrongUse("a user's number and a directory are needed");
  const auto user = userNumber(argv[1]);
  if (!user) return wrongUse("the user's number is none");
  if (argv[2][0] == '\0') return wrongUse("the directory is empty");

  // At once, as nothing is left to be done that the user should do; the sanitizers' looks at an end need
  // rights that are gone by then.
  if (::geteuid() == 0) ::_exit(askAs(*user, argv[1], argv[2]));
  if (::getuid() == *user && ::geteuid() == *user) return askKernel(argv[2]);
  return complain(kCannotTell, argv[1], EPERM);
}
