#include "base/AtomicFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace velmora {

std::string AtomicFile::write(const std::filesystem::path& path, std::string_view bytes, unsigned mode) {
  std::filesystem::path temp = path;
  temp += ".tmp-" + std::to_string(::getpid());
  const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, static_cast<mode_t>(mode));
  if (fd < 0) return std::strerror(errno);

  int err = 0;
  std::size_t written = 0;
  while (written < bytes.size()) {
    const ssize_t n = ::write(fd, bytes.data() + written, bytes.size() - written);
    if (n < 0) {
      if (errno == EINTR) continue;
      err = errno;
      break;
    }
    written += static_cast<std::size_t>(n);
  }
  // A full disk can show only here, when delayed allocation meets the flush.
  if (err == 0 && ::fsync(fd) != 0) err = errno;
  if (::close(fd) != 0 && err == 0) err = errno;
  if (err == 0 && ::rename(temp.c_str(), path.c_str()) != 0) err = errno;
  if (err != 0) {
    ::unlink(temp.c_str());
    return std::strerror(err);
  }
  return {};
}

}  // namespace velmora
