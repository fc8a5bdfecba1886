#include "platform/file_copy.h"

#include <copyfile.h>
#include <fcntl.h>
#include <sys/attr.h>
#include <sys/clonefile.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "platform/open_at.h"

namespace morvane::platform {
namespace {

constexpr mode_t kModeBits = 07777;
constexpr mode_t kSetIdBits = S_ISUID | S_ISGID;
constexpr mode_t kPrivate = S_IRUSR | S_IWUSR;

// The flags a copy is given. The others are the file system's own (compression, tracking) or the
// system's, and would keep the copy from ever being deleted.
constexpr std::uint32_t kCopiedFlags = UF_NODUMP | UF_IMMUTABLE | UF_APPEND | UF_OPAQUE | UF_HIDDEN;
constexpr std::uint32_t kProtectingFlags = UF_IMMUTABLE | UF_APPEND;

/// Closes what it holds unless it was closed by hand before; keeps errno.
class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    const int saved = errno;
    (void)finish();
    errno = saved;
  }

  [[nodiscard]] int get() const { return fd_; }
  [[nodiscard]] explicit operator bool() const { return fd_ != -1; }

  /// Closes it and returns errno, where the last failures to write show.
  int finish() {
    if (fd_ == -1) return 0;
    const int result = close(fd_);
    fd_ = -1;
    return result == 0 ? 0 : errno;
  }

 private:
  int fd_;
};

/// The kernel's copying calls do not say which side failed; these errors only the written one has.
CopyOutcome outcomeOf(int error) {
  const bool written =
      error == ENOSPC || error == EDQUOT || error == EROFS || error == EFBIG || error == EEXIST;
  return {error, written ? CopySide::destination : CopySide::source};
}

/// Remembers the first of several failures.
class FirstError {
 public:
  void note(int result) {
    if (result != 0 && error_ == 0) error_ = errno;
  }
  [[nodiscard]] int get() const { return error_; }

 private:
  int error_ = 0;
};

int setFlags(const struct stat& source, int dst) {
  struct stat made;
  if (fstat(dst, &made) != 0) return -1;
  const std::uint32_t flags = (made.st_flags & ~kCopiedFlags) | (source.st_flags & kCopiedFlags);
  return flags == made.st_flags ? 0 : fchflags(dst, flags);
}

/// Gives `dst` the attributes, access list and status of `src`, in the order in which none undoes
/// or forbids the next: changing the owner clears set-id bits, and an immutable file takes nothing
/// more. Goes on after a failure; returns the first errno.
int giveAttributes(int src, const struct stat& source, int dst) {
  FirstError error;
  const int copied = fcopyfile(src, dst, nullptr, COPYFILE_XATTR | COPYFILE_ACL);
  if (copied != 0 && errno != ENOTSUP) error.note(copied);  // not every file system has them
  error.note(fchown(dst, source.st_uid, source.st_gid));
  error.note(fchmod(dst, source.st_mode & kModeBits));
  errno = setTimes(dst, source);
  error.note(errno);
  error.note(setFlags(source, dst));
  return error.get();
}

/// Whether all of the file open at `fd` can be read.
bool isReadable(int fd) {
  char buffer[16 * 1024];
  off_t at = 0;
  ssize_t got = 0;
  while ((got = pread(fd, buffer, sizeof buffer, at)) > 0)
    at += got;
  return got == 0;
}

CopyOutcome fillFile(int src, const struct stat& source, Descriptor& dst) {
  if (fcopyfile(src, dst.get(), nullptr, COPYFILE_DATA | COPYFILE_DATA_SPARSE) != 0) {
    const CopyOutcome outcome = outcomeOf(errno);
    // Either medium may be the one that failed.
    if (outcome.error == EIO && isReadable(src)) return {EIO, CopySide::destination};
    return outcome;
  }
  if (const int error = giveAttributes(src, source, dst.get()); error != 0) {
    return {error, CopySide::destination};
  }
  return {dst.finish(), CopySide::destination};
}

CopyOutcome copyByContent(int src, const struct stat& source, int dstDir, const char* name) {
  Descriptor dst(
      openat(dstDir, name, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kPrivate));
  if (!dst) return {errno, CopySide::destination};
  const CopyOutcome outcome = fillFile(src, source, dst);
  if (!outcome.ok()) (void)unlinkat(dstDir, name, 0);
  return outcome;
}

CopyOutcome giveLinkAttributes(int src, const struct stat& source, int dstDir, const char* name) {
  const Descriptor dst(openLinkAt(dstDir, name));
  if (!dst) return {errno, CopySide::destination};
  return {giveAttributes(src, source, dst.get()), CopySide::destination};
}

CopyOutcome copyLinkByText(int src, const struct stat& source, int dstDir, const char* name) {
  std::string text;
  if (!readOpenLink(src, text)) return {errno, CopySide::source};
  if (symlinkat(text.c_str(), dstDir, name) != 0) return {errno, CopySide::destination};
  const CopyOutcome outcome = giveLinkAttributes(src, source, dstDir, name);
  if (!outcome.ok()) (void)unlinkat(dstDir, name, 0);
  return outcome;
}

bool clone(int src, int dstDir, const char* name) {
  return fclonefileat(src, dstDir, name, CLONE_ACL) == 0;
}

/// Takes the protecting flags off; false when there were none or it failed.
bool clearFlags(int dirFd, const char* name) {
  struct stat status;
  if (fstatat(dirFd, name, &status, AT_SYMLINK_NOFOLLOW) != 0) return false;
  if ((status.st_flags & kProtectingFlags) == 0) return false;
  attrlist wanted = {};
  wanted.bitmapcount = ATTR_BIT_MAP_COUNT;
  wanted.commonattr = ATTR_CMN_FLAGS;
  std::uint32_t flags = status.st_flags & ~kProtectingFlags;
  return setattrlistat(dirFd, name, &wanted, &flags, sizeof flags, FSOPT_NOFOLLOW) == 0;
}

bool clearFlags(int fd) {
  struct stat status;
  if (fstat(fd, &status) != 0 || (status.st_flags & kProtectingFlags) == 0) return false;
  return fchflags(fd, status.st_flags & ~kProtectingFlags) == 0;
}

}  // namespace

CopyOutcome copyFileAt(int src, const struct stat& source, int dstDir, const char* name) {
  // A clone is a whole copy in one call, and shares the data; only set-id bits are lost in it
  // (clonefile(2)).
  const bool clonable = (source.st_mode & kSetIdBits) == 0;
  if (clonable && clone(src, dstDir, name)) return {};
  if (clonable && errno == EEXIST) return outcomeOf(EEXIST);
  return copyByContent(src, source, dstDir, name);
}

CopyOutcome copyLinkAt(int srcDir, const char* name, int dstDir, const char* dstName) {
  // By its descriptor: the name may mean a whole folder by the time of the clone.
  const Descriptor src(openLinkAt(srcDir, name));
  struct stat source;
  if (!src || fstat(src.get(), &source) != 0) return {errno, CopySide::source};
  if (clone(src.get(), dstDir, dstName)) return {};
  if (errno == EEXIST) return outcomeOf(EEXIST);
  return copyLinkByText(src.get(), source, dstDir, dstName);
}

CopyOutcome copyFolderAttributes(int src, const struct stat& source, int dst) {
  return {giveAttributes(src, source, dst), CopySide::destination};
}

int setTimes(int fd, const struct stat& from) {
  const timespec times[] = {from.st_atimespec, from.st_mtimespec};
  return futimens(fd, times) == 0 ? 0 : errno;
}

bool clearUserFlagsAt(int dirFd, const char* name) {
  const bool ofEntry = clearFlags(dirFd, name);
  const bool ofFolder = clearFlags(dirFd);
  return ofEntry || ofFolder;
}

}  // namespace morvane::platform
