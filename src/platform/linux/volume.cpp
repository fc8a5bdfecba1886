#include "platform/volume.h"

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <cerrno>

namespace morvane::platform {

int swapNamesAt(int dirFd, const char* a, const char* b) {
  if (renameat2(dirFd, a, dirFd, b, RENAME_EXCHANGE) == 0) return 0;
  // renameat2(2): EINVAL where the file system does not support the flag, ENOSYS in old kernels.
  return errno == EINVAL || errno == ENOSYS ? ENOTSUP : errno;
}

int syncVolume(int fd) {
  return syncfs(fd) == 0 ? 0 : errno;
}

int syncFolder(int fd) {
  return fsync(fd) == 0 ? 0 : errno;
}

}  // namespace morvane::platform
