#include "host/ctl/UnixHttpClient.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sysexits.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>

#include "common/FileSystem.h"
#include "common/Format.h"
#include "common/Text.h"
#include "platform/FileDescriptor.h"

namespace tessard {

namespace {

constexpr std::size_t kReplyLimit = std::size_t{64} * 1024 * 1024;
constexpr int kSecondInMilliseconds = 1000;

std::string userName() {
  const passwd* entry = getpwuid(geteuid());
  return entry ? entry->pw_name : std::to_string(geteuid());
}

ClientFailure lost(const std::string& reason) {
  return {"connection-lost", fill("The connection to the daemon was lost: %@.", {reason}), EX_IOERR};
}

// Sends what can be sent: a daemon that answers early stops reading, and its answer tells more than the
// error.
void sendAll(int connection, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t sent = send(connection, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0) return;
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
}

}  // namespace

bool parseReply(const std::string& bytes, ClientReply& reply) {
  const auto headEnd = bytes.find("\r\n\r\n");
  constexpr std::string_view kProtocol = "HTTP/1.1 ";
  if (headEnd == std::string::npos || !bytes.starts_with(kProtocol)) return false;
  const char* digits = bytes.data() + kProtocol.size();
  if (std::from_chars(digits, digits + 3, reply.status).ptr != digits + 3) return false;
  constexpr std::string_view kLengthHeader = "\r\ncontent-length:";
  const std::string head = asciiLowercase(bytes.substr(0, headEnd));
  const auto header = head.find(kLengthHeader);
  if (header == std::string::npos) return false;
  std::size_t at = header + kLengthHeader.size();
  while (at < head.size() && head[at] == ' ') ++at;
  std::size_t length = 0;
  if (std::from_chars(head.data() + at, head.data() + head.size(), length).ec != std::errc()) return false;
  const std::size_t start = headEnd + 4;
  if (bytes.size() - start < length) return false;
  reply.body = bytes.substr(start, length);
  return true;
}

std::string UnixHttpClient::whoMayConnect() const {
  struct stat attributes {};
  const group* owner = nullptr;
  if (stat(socketPath_.c_str(), &attributes) == 0 && (attributes.st_mode & S_IWGRP) != 0) {
    owner = getgrgid(attributes.st_gid);
  }
  if (!owner) {
    return fill("The socket %@ is open to root only, and you are %@; run the command as root.",
                {socketPath_, userName()});
  }
  return fill(
      "The socket %@ is open to root and to members of the group \"%@\" only, and you are %@; run the "
      "command as root, or have yourself added to the group and log in again.",
      {socketPath_, owner->gr_name, userName()});
}

std::variant<int, ClientFailure> UnixHttpClient::connected() const {
  // Through the open directory, so that the path may be longer than a socket address.
  const std::string directory = directoryOf(socketPath_).empty() ? "." : directoryOf(socketPath_);
  const FileDescriptor place(open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = fill("/proc/self/fd/%d/%@", {place.get(), lastPathComponent(socketPath_)});
  if (path.size() < sizeof address.sun_path) std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  FileDescriptor connection(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const bool placed = static_cast<bool>(place);
  if (placed && connection &&
      connect(connection.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
    return connection.release();
  }
  const int code = errno;
  if (code == EACCES || code == EPERM) return ClientFailure{"no-permission", whoMayConnect(), EX_NOPERM};
  if (code == ENOENT || code == ECONNREFUSED) {
    return ClientFailure{"not-running",
                         fill("The daemon is not running: %@ %@ (start tessardd, or name another socket with "
                              "--socket).",
                              {code == ENOENT ? "there is no socket" : "nobody listens on", socketPath_}),
                         EX_UNAVAILABLE};
  }
  return ClientFailure{"no-connection",
                       fill("Cannot connect to %@: %@.", {socketPath_, SystemError(code).description()}),
                       EX_UNAVAILABLE};
}

std::variant<ClientReply, ClientFailure> UnixHttpClient::send(const std::string& method,
                                                              const std::string& path,
                                                              const std::string& body) const {
  auto made = connected();
  if (const auto* failure = std::get_if<ClientFailure>(&made)) return *failure;
  const FileDescriptor connection(std::get<int>(made));
  const std::string head = fill(
      "%@ %@ HTTP/1.1\r\nHost: tessardd\r\nConnection: close\r\nAccept: application/json\r\n"
      "Content-Type: application/json\r\nContent-Length: %lu\r\n\r\n",
      {method, path, body.size()});
  sendAll(connection.get(), head + body);
  std::string received;
  std::array<char, 65536> buffer{};
  int seconds = 0;
  while (received.size() <= kReplyLimit) {
    pollfd watched{connection.get(), POLLIN, 0};
    const int ready = poll(&watched, 1, kSecondInMilliseconds);
    if (ready == 0) waiting_(++seconds);
    if (ready <= 0) continue;
    const ssize_t count = recv(connection.get(), buffer.data(), buffer.size(), 0);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) {
      ClientReply reply;
      if (parseReply(received, reply)) return reply;
      return lost(count < 0 ? SystemError::last().description() : "it ended before the answer");
    }
    received.append(buffer.data(), static_cast<std::size_t>(count));
  }
  return ClientFailure{"too-large-answer", "The daemon's answer is too large.", EX_PROTOCOL};
}

}  // namespace tessard
