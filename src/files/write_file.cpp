#include "files/write_file.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include "files/fd.h"

namespace morvane {
namespace {

constexpr mode_t kFileMode = S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH;

int writeAll(int fd, std::string_view content) {
  while (!content.empty()) {
    const ssize_t written = write(fd, content.data(), content.size());
    if (written > 0) {
      content.remove_prefix(static_cast<size_t>(written));
    } else if (written == 0) {
      return EIO;
    } else if (errno != EINTR) {
      return errno;
    }
  }
  return 0;
}

int writeNewFileAt(int dirFd, const char* name, std::string_view content) {
  constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
  UniqueFd file(openat(dirFd, name, kFlags, kFileMode));
  if (!file) return errno;
  const int error = writeAll(file.get(), content);
  if (error != 0) return error;
  return close(file.release()) == 0 ? 0 : errno;  // some file systems write only now
}

}  // namespace

int writeFileAt(int dirFd, const char* name, std::string_view content) {
  const std::string temporary = std::string(".") + name + ".new";
  (void)unlinkat(dirFd, temporary.c_str(), 0);  // left by a run that was killed
  int error = writeNewFileAt(dirFd, temporary.c_str(), content);
  if (error == 0 && renameat(dirFd, temporary.c_str(), dirFd, name) != 0) error = errno;
  if (error != 0) (void)unlinkat(dirFd, temporary.c_str(), 0);  // the first error is the answer
  return error;
}

}  // namespace morvane
