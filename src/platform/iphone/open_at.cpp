#include "platform/open_at.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace morvane::platform {

int openWithoutLinksAt(int dirFd, const char* path, int flags) {
  // The kernel takes only one of the two (open(2)); the stronger one implies the other.
  return openat(dirFd, path, (flags & ~O_NOFOLLOW) | O_NOFOLLOW_ANY);
}

int openLinkAt(int dirFd, const char* name) {
  // O_SYMLINK opens anything else too. Non-blocking, in case it is a FIFO by now.
  const int fd = openat(dirFd, name, O_RDONLY | O_SYMLINK | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (fd == -1) return -1;
  struct stat status;
  if (fstat(fd, &status) == 0 && S_ISLNK(status.st_mode)) return fd;
  (void)close(fd);
  errno = EINVAL;  // as readlink(2) says it
  return -1;
}

bool readOpenLink(int linkFd, std::string& text) {
  char buffer[PATH_MAX];  // no link is longer (symlink(2))
  const ssize_t length = freadlink(linkFd, buffer, sizeof buffer);
  if (length < 0) return false;
  text.assign(buffer, static_cast<std::size_t>(length));
  return true;
}

}  // namespace morvane::platform
