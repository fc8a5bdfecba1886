#include "platform/file_copy.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/open_at.h"

namespace morvane::platform {
namespace {

constexpr mode_t kModeBits = 07777;
constexpr off_t kSmallFile = off_t{128} * 1024;  // below: one read and one write are fastest
constexpr size_t kBufferSize = size_t{128} * 1024;
constexpr size_t kKernelCopyChunk = size_t{64} * 1024 * 1024;

CopyOutcome fromSource() {
  return {errno, CopySide::source};
}
CopyOutcome fromDestination() {
  return {errno, CopySide::destination};
}

/// Closes a descriptor of this file; the copy's own errors have been noted by then.
class OpenFile {
 public:
  explicit OpenFile(int fd) : fd_(fd) {}
  ~OpenFile() {
    if (fd_ != -1) (void)close(fd_);
  }
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;
  [[nodiscard]] int get() const { return fd_; }
  [[nodiscard]] int closeChecked() { return close(std::exchange(fd_, -1)); }

 private:
  int fd_;
};

char* copyBuffer() {
  static const std::unique_ptr<char[]> buffer = std::make_unique<char[]>(kBufferSize);
  return buffer.get();
}

mode_t currentUmask() {
  static const mode_t mask = [] {
    const mode_t value = umask(0);
    (void)umask(value);
    return value;
  }();
  return mask;
}

/// The largest part of `mode` that a new file can carry while it still belongs to us: who will be
/// its owner or in its group is "other" until then, so nobody gets more than all three classes
/// allow.
mode_t safeInitialMode(mode_t mode) {
  const mode_t other = mode & (mode >> 3) & (mode >> 6) & 07;
  const mode_t user = (mode & 0700) | 0600;
  return user | (other << 3) | other;
}

int writeAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    const ssize_t written = write(fd, data, size);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return written == 0 ? EIO : errno;
    data += written;
    size -= static_cast<size_t>(written);
  }
  return 0;
}

/// Copies by reading and writing until `length` bytes are done or the source ends.
CopyOutcome copyThroughBuffer(int src, int dst, off_t length) {
  while (length > 0) {
    const size_t want = std::min(static_cast<size_t>(length), kBufferSize);
    const ssize_t got = read(src, copyBuffer(), want);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return fromSource();
    if (got == 0) return {};
    if (const int error = writeAll(dst, copyBuffer(), static_cast<size_t>(got)); error != 0) {
      return {error, CopySide::destination};
    }
    length -= got;
  }
  return {};
}

/// Whether to go on with read and write: where the kernel cannot copy by itself, and after an I/O
/// error, of which only they tell whose it is.
bool kernelCannotCopy(int error) {
  return error == ENOSYS || error == EXDEV || error == EINVAL || error == EOPNOTSUPP ||
         error == EPERM || error == EBADF || error == ETXTBSY || error == EIO;
}

/// Copies one stretch of data at the current offsets, inside the kernel where it can.
CopyOutcome copyStretch(int src, int dst, off_t length) {
  while (length > 0) {
    const size_t want = std::min(static_cast<size_t>(length), kKernelCopyChunk);
    const ssize_t got = copy_file_range(src, nullptr, dst, nullptr, want, 0);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0 && kernelCannotCopy(errno)) return copyThroughBuffer(src, dst, length);
    if (got < 0) return fromDestination();
    // Some file systems answer 0 for what they cannot copy this way, and not only at the end.
    if (got == 0) return copyThroughBuffer(src, dst, length);
    length -= got;
  }
  return {};
}

/// Copies the stretches of data and leaves the holes between them (lseek(2), SEEK_DATA).
CopyOutcome copySparse(int src, int dst, off_t size) {
  off_t position = 0;
  while (position < size) {
    const off_t data = lseek(src, position, SEEK_DATA);
    if (data < 0 && errno == ENXIO) break;
    if (data < 0 && errno == EINVAL) return copyStretch(src, dst, size);  // knows of no holes
    if (data < 0) return fromSource();
    if (data >= size) break;
    off_t hole = lseek(src, data, SEEK_HOLE);
    if (hole < 0) return fromSource();
    hole = std::min(hole, size);
    if (lseek(src, data, SEEK_SET) < 0) return fromSource();
    if (lseek(dst, data, SEEK_SET) < 0) return fromDestination();
    if (const CopyOutcome outcome = copyStretch(src, dst, hole - data); !outcome.ok()) {
      return outcome;
    }
    position = hole;
  }
  return ftruncate(dst, size) == 0 ? CopyOutcome{} : fromDestination();
}

bool hasHoles(const struct stat& status) {
  constexpr off_t kStatBlock = 512;  // the unit of st_blocks, stat(3type)
  return status.st_blocks < status.st_size / kStatBlock;
}

CopyOutcome copyContent(int src, const struct stat& source, int dst) {
  if (source.st_size == 0) return {};
  if (source.st_size <= kSmallFile && !hasHoles(source)) {
    return copyThroughBuffer(src, dst, source.st_size);
  }
  if (ioctl(dst, FICLONE, src) == 0) return {};
  return copySparse(src, dst, source.st_size);
}

/// Reads a variable-sized answer of one of the xattr calls. False with errno.
template <typename Call>
bool readSized(std::vector<char>& buffer, Call call) {
  while (true) {
    const ssize_t size = call(buffer.data(), buffer.size());
    if (size >= 0) {
      buffer.resize(static_cast<size_t>(size));
      return true;
    }
    if (errno != ERANGE) return false;
    const ssize_t needed = call(nullptr, 0);
    if (needed < 0) return false;
    buffer.resize(static_cast<size_t>(needed));
  }
}

/// One side of an attribute copy: an open file, or a link that is open as a mere place (O_PATH),
/// which the calls on descriptors refuse and the calls on paths reach through /proc.
class AttributeHolder {
 public:
  explicit AttributeHolder(int fd) : fd_(fd) {}
  static AttributeHolder ofLink(int fd) {
    AttributeHolder holder(fd);
    holder.path_ = "/proc/self/fd/" + std::to_string(fd);
    return holder;
  }

  ssize_t list(char* buffer, size_t size) const {
    return isPath() ? listxattr(path(), buffer, size) : flistxattr(fd_, buffer, size);
  }
  ssize_t get(const char* name, char* buffer, size_t size) const {
    return isPath() ? getxattr(path(), name, buffer, size) : fgetxattr(fd_, name, buffer, size);
  }
  int set(const char* name, const char* value, size_t size) const {
    return isPath() ? setxattr(path(), name, value, size, 0) : fsetxattr(fd_, name, value, size, 0);
  }

 private:
  [[nodiscard]] bool isPath() const { return !path_.empty(); }
  [[nodiscard]] const char* path() const { return path_.c_str(); }

  int fd_;
  std::string path_;
};

CopyOutcome copyAttributes(const AttributeHolder& from, const AttributeHolder& to) {
  std::array<char, 1024> few;
  const ssize_t size = from.list(few.data(), few.size());
  if (size == 0 || (size < 0 && errno == ENOTSUP)) return {};
  std::vector<char> names(few.begin(), few.begin() + std::max<ssize_t>(size, 0));
  if (size < 0 &&
      (errno != ERANGE || !readSized(names, [&](char* b, size_t n) { return from.list(b, n); }))) {
    return fromSource();
  }
  CopyOutcome outcome;
  std::vector<char> value;
  names.push_back('\0');
  for (const char* name = names.data(); *name != '\0'; name += std::string_view(name).size() + 1) {
    value.resize(256);
    if (!readSized(value, [&](char* b, size_t n) { return from.get(name, b, n); })) {
      if (errno != ENODATA && outcome.ok()) outcome = fromSource();
    } else if (to.set(name, value.data(), value.size()) != 0 && outcome.ok()) {
      outcome = fromDestination();
      // setxattr(2) says so of an attribute too large for its place, and then says it of that
      // alone.
      if (outcome.error == ENOSPC || outcome.error == EDQUOT) outcome.error = E2BIG;
    }
  }
  return outcome;
}

/// Owner first, since a change of owner takes the set-user-id bits and capabilities away, and
/// always, since a folder can give its own group to what is made in it; then attributes, while the
/// mode still lets us; then the mode; the times last.
CopyOutcome copyFileAttributes(int src, const struct stat& source, int dst, mode_t created) {
  if (fchown(dst, source.st_uid, source.st_gid) != 0) return fromDestination();
  const CopyOutcome outcome = copyAttributes(AttributeHolder(src), AttributeHolder(dst));
  if (!outcome.ok()) return outcome;
  const mode_t mode = source.st_mode & kModeBits;
  if (mode != created && fchmod(dst, mode) != 0) return fromDestination();
  return {setTimes(dst, source), CopySide::destination};
}

/// Whether the link open at `fd` is the one that we have just made with this text. Where its folder
/// belongs to an app, something else can have been put in its place, which must not get an owner.
bool isOurLink(int fd, const std::string& text) {
  struct stat status;
  std::string now;
  return fstat(fd, &status) == 0 && S_ISLNK(status.st_mode) && status.st_uid == geteuid() &&
         status.st_nlink == 1 && readOpenLink(fd, now) && now == text;
}

CopyOutcome copyLinkAttributes(int src, const struct stat& source, const std::string& text,
                               int dstDir, const char* dstName) {
  const OpenFile made(openLinkAt(dstDir, dstName));
  if (made.get() == -1) return fromDestination();
  if (!isOurLink(made.get(), text)) return {ESTALE, CopySide::destination};
  if (fchownat(made.get(), "", source.st_uid, source.st_gid, AT_EMPTY_PATH) != 0) {
    return fromDestination();
  }
  const CopyOutcome outcome =
      copyAttributes(AttributeHolder::ofLink(src), AttributeHolder::ofLink(made.get()));
  if (!outcome.ok()) return outcome;
  const timespec times[2] = {source.st_atim, source.st_mtim};
  // An empty path is utimensat(2)'s since Linux 5.8.
  if (utimensat(made.get(), "", times, AT_EMPTY_PATH) != 0) return fromDestination();
  return {};
}

}  // namespace

CopyOutcome copyFileAt(int src, const struct stat& source, int dstDir, const char* name) {
  const mode_t initial = safeInitialMode(source.st_mode);
  constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY;
  OpenFile dst(openat(dstDir, name, kFlags, initial));
  if (dst.get() == -1) return fromDestination();
  CopyOutcome outcome = copyContent(src, source, dst.get());
  if (outcome.ok()) {
    outcome = copyFileAttributes(src, source, dst.get(), initial & ~currentUmask());
  }
  if (dst.closeChecked() != 0 && outcome.ok()) outcome = fromDestination();
  if (!outcome.ok()) (void)unlinkat(dstDir, name, 0);  // whole or absent; `outcome` says why
  return outcome;
}

CopyOutcome copyLinkAt(int srcDir, const char* name, int dstDir, const char* dstName) {
  struct stat source;
  std::string text;
  const OpenFile link(openLinkAt(srcDir, name));
  if (link.get() == -1 || fstat(link.get(), &source) != 0) return fromSource();
  if (!readOpenLink(link.get(), text)) return fromSource();
  if (symlinkat(text.c_str(), dstDir, dstName) != 0) return fromDestination();
  const CopyOutcome outcome = copyLinkAttributes(link.get(), source, text, dstDir, dstName);
  if (!outcome.ok()) (void)unlinkat(dstDir, dstName, 0);  // whole or absent; `outcome` says why
  return outcome;
}

CopyOutcome copyFolderAttributes(int src, const struct stat& source, int dst) {
  CopyOutcome first;
  if (fchown(dst, source.st_uid, source.st_gid) != 0) first = fromDestination();
  const auto note = [&first](const CopyOutcome& outcome) {
    if (first.ok()) first = outcome;
  };
  note(copyAttributes(AttributeHolder(src), AttributeHolder(dst)));
  if (fchmod(dst, source.st_mode & kModeBits) != 0) note(fromDestination());
  note({setTimes(dst, source), CopySide::destination});
  return first;
}

int setTimes(int fd, const struct stat& from) {
  const timespec times[2] = {from.st_atim, from.st_mtim};
  return futimens(fd, times) == 0 ? 0 : errno;
}

bool clearUserFlagsAt(int /*dirFd*/, const char* /*name*/) {
  return false;  // Linux lets only a privileged process set such flags: they are the system's
}

}  // namespace morvane::platform
