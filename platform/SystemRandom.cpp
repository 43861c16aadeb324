#include "platform/SystemRandom.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "platform/FileDescriptor.h"

namespace tessard {

std::uint32_t SystemRandom::arc4random() {
  return ::arc4random();
}

std::optional<std::string> SystemRandom::readDevRandom(std::size_t count) {
  const FileDescriptor device(open("/dev/random", O_RDONLY | O_CLOEXEC));
  if (!device) return std::nullopt;
  std::string bytes(count, '\0');
  for (std::size_t have = 0; have < count;) {
    const ssize_t got = read(device.get(), bytes.data() + have, count - have);
    if (got > 0) {
      have += static_cast<std::size_t>(got);
    } else if (got == 0 || errno != EINTR) {
      return std::nullopt;
    }
  }
  return bytes;
}

}  // namespace tessard
