#include "platform/open_at.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>

namespace morvane::platform {

int openWithoutLinksAt(int dirFd, const char* path, int flags) {
  open_how how{};
  how.flags = static_cast<unsigned>(flags);
  how.resolve = RESOLVE_NO_SYMLINKS;
  const long fd = syscall(SYS_openat2, dirFd, path, &how, sizeof how);
  if (fd == -1 && errno == ENOSYS) errno = ENOTSUP;
  return static_cast<int>(fd);
}

int openLinkAt(int dirFd, const char* name) {
  return openat(dirFd, name, O_PATH | O_NOFOLLOW | O_CLOEXEC);
}

bool readOpenLink(int linkFd, std::string& text) {
  std::array<char, PATH_MAX> buffer;
  const ssize_t length = readlinkat(linkFd, "", buffer.data(), buffer.size());
  if (length < 0) return false;
  text.assign(buffer.data(), static_cast<size_t>(length));
  return true;
}

}  // namespace morvane::platform
