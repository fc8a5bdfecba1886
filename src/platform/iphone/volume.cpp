#include "platform/volume.h"

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <cerrno>

namespace morvane::platform {

int swapNamesAt(int dirFd, const char* a, const char* b) {
  return renameatx_np(dirFd, a, dirFd, b, RENAME_SWAP) == 0 ? 0 : errno;
}

int syncVolume(int fd) {
  // fsync(2) only hands the data to the drive, which may keep it in its cache for a while.
  if (fsync_volume_np(fd, SYNC_VOLUME_FULLSYNC | SYNC_VOLUME_WAIT) == 0) return 0;
  return syncFolder(fd);
}

int syncFolder(int fd) {
  return fcntl(fd, F_FULLFSYNC) == 0 ? 0 : errno;
}

}  // namespace morvane::platform
