#include "phone/builder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace morvane::phone {
namespace {

struct OwnedPart {
  std::string_view folder;
  uid_t owner;  // and group
};

// The users of an iPhone: mobile, _installd and _securityd; all else is root's.
constexpr OwnedPart kOwnedParts[] = {
    {"/var/mobile", 501}, {"/var/containers", 33}, {"/var/Keychains", 64}};

uid_t ownerOf(std::string_view path) {
  for (const OwnedPart& part : kOwnedParts) {
    if (path.starts_with(part.folder)) return part.owner;
  }
  return 0;
}

// In 2024, so that nothing depends on when the phone was made.
constexpr std::uint64_t kFirstSecond = 1'704'067'200;
constexpr std::uint64_t kSecondsInYear = 31'536'000;

timespec timeFrom(Random& random) {
  return {static_cast<time_t>(kFirstSecond + random.below(kSecondsInYear)),
          static_cast<long>(random.below(1'000'000'000))};
}

}  // namespace

Builder::Builder(std::string var, std::uint64_t seed, const volatile std::sig_atomic_t* interrupted)
    : var_(std::move(var)), times_(seed, "times"), interrupted_(interrupted) {
  if (geteuid() != 0) {
    note("not root: files keep your user as their owner, where a phone's apps have 501:501");
  }
}

void Builder::require(const Result& result) {
  if (failure_ && !result) failure_ = result;
}

bool Builder::working() {
  if (interrupted_ != nullptr && *interrupted_ != 0) require(Result::failed("interrupted"));
  return static_cast<bool>(failure_);
}

void Builder::folder(const std::string& path, mode_t mode) {
  if (path == "/var" || folders_.contains(path) || !working()) return;
  folder(path.substr(0, path.rfind('/')));
  const std::string host = onHost(path);
  if (mkdir(host.c_str(), mode) != 0 && errno != EEXIST) {
    return require(Result::failed("make", host, errno));
  }
  if (chmod(host.c_str(), mode) != 0) require(Result::failed("set the mode of", host, errno));
  folders_.insert(path);
}

void Builder::file(const std::string& path, std::string_view content, mode_t mode) {
  folder(path.substr(0, path.rfind('/')));
  if (!working()) return;
  const std::string host = onHost(path);
  const int fd = open(host.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
  if (fd < 0) return require(Result::failed("make", host, errno));
  while (!content.empty()) {
    const ssize_t written = write(fd, content.data(), content.size());
    if (written < 0) {
      require(Result::failed("write", host, errno));
      break;
    }
    content.remove_prefix(static_cast<std::size_t>(written));
  }
  if (close(fd) != 0) require(Result::failed("write", host, errno));
  if (chmod(host.c_str(), mode) != 0) require(Result::failed("set the mode of", host, errno));
  stamp(path);
}

void Builder::adopt(const std::string& path) {
  if (working()) stamp(path);
}

void Builder::attribute(const std::string& path, const char* name, std::string_view value) {
  if (!working()) return;
  const std::string host = onHost(path);
  if (lsetxattr(host.c_str(), name, value.data(), value.size(), 0) == 0) return;
  if (errno != ENOTSUP) return require(Result::failed("set an attribute of", host, errno));
  note("this file system keeps no extended attributes: files go without");
}

void Builder::stamp(const std::string& path) {
  const std::string host = onHost(path);
  const uid_t owner = ownerOf(path);
  if (geteuid() == 0 && lchown(host.c_str(), owner, owner) != 0) {
    if (errno != EPERM && errno != EINVAL) return require(Result::failed("own", host, errno));
    note("owners cannot be set here: files keep your user, where a phone's apps have 501:501");
  }
  const timespec time = timeFrom(times_);
  const timespec both[2] = {time, time};
  if (utimensat(AT_FDCWD, host.c_str(), both, AT_SYMLINK_NOFOLLOW) != 0) {
    require(Result::failed("set the times of", host, errno));
  }
}

Result Builder::finish() {
  for (auto path = folders_.rbegin(); path != folders_.rend() && working(); ++path)
    stamp(*path);
  if (working()) stamp("/var");
  return failure_;
}

}  // namespace morvane::phone
