#include "bench/floor.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace morvane::bench {
namespace {

struct Entry {
  std::string name;
  unsigned char type;
};

std::vector<Entry> list(int folder) {
  std::vector<Entry> entries;
  alignas(dirent64) static std::array<char, 32768> buffer;
  for (long got = 0; (got = ::syscall(SYS_getdents64, folder, buffer.data(), buffer.size())) > 0;) {
    for (long at = 0; at < got;) {
      const auto* record = reinterpret_cast<const dirent64*>(buffer.data() + at);
      at += record->d_reclen;
      const std::string_view name = record->d_name;
      if (name != "." && name != "..") entries.push_back({record->d_name, record->d_type});
    }
  }
  return entries;
}

void copyAttributes(int src, int dst) {
  std::array<char, 1024> names;
  std::array<char, 4096> value;
  const ssize_t size = ::flistxattr(src, names.data(), names.size());
  for (ssize_t at = 0; at < size;) {
    const char* name = names.data() + at;
    const ssize_t got = ::fgetxattr(src, name, value.data(), value.size());
    if (::fsetxattr(dst, name, value.data(), static_cast<size_t>(got), 0) != 0) std::abort();
    at += static_cast<ssize_t>(std::strlen(name)) + 1;
  }
}

void finish(int src, int dst, const struct stat& status) {
  const timespec times[2] = {status.st_atim, status.st_mtim};
  if (::fchown(dst, status.st_uid, status.st_gid) != 0) std::abort();
  copyAttributes(src, dst);
  if (S_ISDIR(status.st_mode)) (void)::fchmod(dst, status.st_mode & 07777U);
  (void)::futimens(dst, times);
  ::close(src);
  ::close(dst);
}

void copyFile(int src, int dst) {
  static std::array<char, 131072> buffer;
  const ssize_t got = ::read(src, buffer.data(), buffer.size());
  if (got > 0 && ::write(dst, buffer.data(), static_cast<size_t>(got)) != got) std::abort();
}

}  // namespace

void copyFolder(int srcFolder, int dstFolder) {
  for (const auto& [name, type] : list(srcFolder)) {
    struct stat status {};
    const int src = ::openat(srcFolder, name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (src == -1 || ::fstat(src, &status) != 0) std::abort();
    int dst = -1;
    if (type == DT_DIR) {
      (void)::mkdirat(dstFolder, name.c_str(), 0700);
      dst = ::openat(dstFolder, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
      copyFolder(src, dst);
    } else {
      dst = ::openat(dstFolder, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC,
                     status.st_mode & 07777U);
      copyFile(src, dst);
    }
    finish(src, dst, status);
  }
}

void removeFolder(int folder) {
  for (const auto& [name, type] : list(folder)) {
    if (type == DT_DIR) {
      const int inner = ::openat(folder, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
      removeFolder(inner);
      ::close(inner);
    }
    if (::unlinkat(folder, name.c_str(), type == DT_DIR ? AT_REMOVEDIR : 0) != 0) std::abort();
  }
}

int locate(const char* root, std::string_view needle) {
  static std::array<char, 65536> buffer;
  int found = 0;
  const int folder = ::open(root, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  for (const auto& [name, type] : list(folder)) {
    const std::string path = name + "/.com.apple.mobile_container_manager.metadata.plist";
    const int file = ::openat(folder, path.c_str(), O_RDONLY | O_CLOEXEC);
    const ssize_t got = ::read(file, buffer.data(), buffer.size());
    ::close(file);
    if (got > 0 && ::memmem(buffer.data(), static_cast<size_t>(got), needle.data(), needle.size()))
      ++found;
  }
  ::close(folder);
  return found;
}

}  // namespace morvane::bench
