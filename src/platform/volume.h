#pragma once

namespace morvane::platform {

/// Lets the names `a` and `b` of the folder `dirFd` change places in one atomic step. Returns
/// errno; ENOTSUP where the file system cannot.
[[nodiscard]] int swapNamesAt(int dirFd, const char* a, const char* b);

/// Returns when everything written so far to the file system that holds `fd` is on its medium.
/// Returns errno.
[[nodiscard]] int syncVolume(int fd);

/// Returns when the names in the folder open at `fd` are on its medium. Returns errno.
[[nodiscard]] int syncFolder(int fd);

}  // namespace morvane::platform
