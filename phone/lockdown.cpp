#include "phone/lockdown.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <utility>

namespace morvane::phone {
namespace {

class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) close(fd_);
  }
  Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Fd& operator=(Fd&&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

enum class Depth { one, all };

Result changeAttributes(const char* path, Depth depth, std::uint64_t set, std::uint64_t clear) {
  struct mount_attr attributes = {};
  attributes.attr_set = set;
  attributes.attr_clr = clear;
  const unsigned flags = depth == Depth::all ? AT_RECURSIVE : 0U;
  if (mount_setattr(AT_FDCWD, path, flags, &attributes, sizeof attributes) == 0) return {};
  if (errno == ENOSYS) return Result::failed("a phone needs Linux 5.12 or later");
  return Result::failed("protect", path, errno);
}

Result mountNew(const char* type, const char* path, unsigned long flags, const char* data) {
  if (mount(type, path, type, flags, data) == 0) return {};
  return Result::failed(std::string("mount ") + type + " on", path, errno);
}

// A place of the machine that is to be seen inside too, held while other mounts hide it.
struct Place {
  std::string target;
  Fd source;
};

Result holdPlaces(const std::vector<std::string>& paths, std::vector<Place>& places) {
  for (const std::string& path : paths) {
    Fd source(open(path.c_str(), O_PATH | O_CLOEXEC));
    if (source.get() < 0) return Result::failed("open", path, errno);
    places.push_back({path, std::move(source)});
  }
  return {};
}

Result bindPlace(const Place& place, std::uint64_t clear) {
  const std::string source = "/proc/self/fd/" + std::to_string(place.source.get());
  if (mount(source.c_str(), place.target.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) {
    return Result::failed("bind a folder on", place.target, errno);
  }
  return changeAttributes(place.target.c_str(), Depth::one, 0, clear);
}

Result bindDevices(const std::vector<Place>& devices) {
  for (const Place& device : devices) {
    const Fd made(open(device.target.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666));
    if (made.get() < 0) return Result::failed("make", device.target, errno);
    if (Result bound = bindPlace(device, MOUNT_ATTR_NODEV); !bound) return bound;
  }
  return {};
}

// Only what a program cannot do without, and terminals of its own.
Result mountDevices(const std::vector<Place>& devices) {
  if (Result r = mountNew("tmpfs", "/dev", MS_NOSUID | MS_NODEV, "mode=755"); !r) return r;
  if (Result r = bindDevices(devices); !r) return r;
  if (mkdir("/dev/pts", 0755) != 0) return Result::failed("make", "/dev/pts", errno);
  if (mkdir("/dev/shm", 01777) != 0 || chmod("/dev/shm", 01777) != 0) {
    return Result::failed("make", "/dev/shm", errno);
  }
  constexpr const char* kLinks[][2] = {{"pts/ptmx", "/dev/ptmx"},
                                       {"/proc/self/fd", "/dev/fd"},
                                       {"/proc/self/fd/0", "/dev/stdin"},
                                       {"/proc/self/fd/1", "/dev/stdout"},
                                       {"/proc/self/fd/2", "/dev/stderr"}};
  for (const auto& [text, path] : kLinks) {
    if (symlink(text, path) != 0) return Result::failed("link", path, errno);
  }
  return mountNew("devpts", "/dev/pts", MS_NOSUID | MS_NOEXEC,
                  "newinstance,ptmxmode=0666,mode=620");
}

std::vector<Place> holdDevices() {
  std::vector<Place> devices;
  for (const char* path :
       {"/dev/null", "/dev/zero", "/dev/full", "/dev/random", "/dev/urandom", "/dev/tty"}) {
    Fd source(open(path, O_PATH | O_CLOEXEC));
    if (source.get() >= 0) devices.push_back({path, std::move(source)});
  }
  return devices;
}

Result mountVar(const std::vector<Place>& var) {
  if (!var.empty()) return bindPlace(var.front(), MOUNT_ATTR_RDONLY);
  return mountNew("tmpfs", "/var", MS_NOSUID | MS_NODEV, "mode=755");
}

}  // namespace

Result lockDownMounts(const EnterOptions& options) {
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    return Result::failed("make private", "the mounts", errno);
  }
  std::vector<Place> var;
  std::vector<Place> writable;
  if (!options.var.empty()) {
    if (Result r = holdPlaces({options.var}, var); !r) return r;
    var.front().target = "/var";
  }
  if (Result r = holdPlaces(options.writable, writable); !r) return r;
  const std::vector<Place> devices = holdDevices();
  constexpr std::uint64_t kProtected = MOUNT_ATTR_RDONLY | MOUNT_ATTR_NODEV | MOUNT_ATTR_NOSUID;
  if (Result r = changeAttributes("/", Depth::all, kProtected, 0); !r) return r;
  if (Result r = mountVar(var); !r) return r;
  for (const Place& place : writable) {
    if (Result r = bindPlace(place, MOUNT_ATTR_RDONLY); !r) return r;
  }
  if (Result r = mountDevices(devices); !r) return r;
  // /proc/sys and others reach the machine's kernel. Who keeps all privileges could undo it, and
  // may want to make a phone within the phone, which takes writing there.
  const unsigned long readOnly = options.privilege == Privilege::dropped ? MS_RDONLY : 0;
  return mountNew("proc", "/proc", MS_NOSUID | MS_NODEV | MS_NOEXEC | readOnly, nullptr);
}

Result dropPrivileges() {
  constexpr int kReachTheMachine[] = {
      CAP_SYS_ADMIN,      CAP_SYS_MODULE,    CAP_SYS_RAWIO,  CAP_SYS_BOOT,
      CAP_SYS_TIME,       CAP_SYSLOG,        CAP_SYS_PACCT,  CAP_MAC_ADMIN,
      CAP_MAC_OVERRIDE,   CAP_AUDIT_CONTROL, CAP_WAKE_ALARM, CAP_BLOCK_SUSPEND,
      CAP_SYS_TTY_CONFIG, CAP_PERFMON,       CAP_BPF,        CAP_CHECKPOINT_RESTORE};
  for (const int capability : kReachTheMachine) {
    if (prctl(PR_CAPBSET_DROP, capability, 0, 0, 0) != 0 && errno != EINVAL) {
      return Result::failed("drop", "a capability", errno);
    }
  }
  return {};
}

}  // namespace morvane::phone
