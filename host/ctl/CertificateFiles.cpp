#include "host/ctl/CertificateFiles.h"

#include <cerrno>
#include <fstream>

namespace tessard {

namespace {

constexpr std::size_t kFileLimit = std::size_t{700} * 1024;  // what a request can carry as base64

}  // namespace

Result<std::string> certificateFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return SystemError::last();
  std::string content(kFileLimit + 1, '\0');
  file.read(content.data(), static_cast<std::streamsize>(content.size()));
  if (file.bad() || (file.gcount() == 0 && !file.eof())) return SystemError(EIO);
  content.resize(static_cast<std::size_t>(file.gcount()));
  if (content.size() > kFileLimit) return SystemError(EFBIG);
  return content;
}

}  // namespace tessard
