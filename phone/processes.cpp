#include "phone/processes.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <string_view>

#include "phone/catalogue.h"

namespace morvane::phone {
namespace {

constexpr const char* kMark = "MORVANE_PHONE_PROCESS=1";

// A file system in memory, so that the programs are gone with the run. /var/run is volatile on a
// phone too.
constexpr const char* kPrograms = "/var/run";
constexpr const char* kProgram = "/var/run/idle";

Result copyThisProgram() {
  if (mkdir(kPrograms, 0755) != 0 && errno != EEXIST)
    return Result::failed("make", kPrograms, errno);
  if (mount("tmpfs", kPrograms, "tmpfs", MS_NOSUID | MS_NODEV, "mode=755") != 0) {
    return Result::failed("mount a file system on", kPrograms, errno);
  }
  const int from = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
  const int to = open(kProgram, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0755);
  constexpr std::size_t kMost = 1U << 30;
  ssize_t sent = from < 0 || to < 0 ? -1 : 1;
  while (sent > 0)
    sent = sendfile(to, from, nullptr, kMost);
  const int error = errno;
  if (from >= 0) close(from);
  if (to >= 0) close(to);  // a program open for writing cannot be started
  return sent == 0 ? Result() : Result::failed("copy this program to", kProgram, error);
}

/// Waits until a process that was just started is seen under its own name and arguments, proc(5):
/// posix_spawn comes back as soon as the old program's memory is let go, before the kernel has set
/// up the new one.
void awaitProgram(pid_t pid, const std::string& path) {
  constexpr timespec kMoment = {0, 1000000};
  const std::string file = "/proc/" + std::to_string(pid) + "/cmdline";
  for (int moments = 0; moments < 2000; ++moments) {
    std::string arguments(path.size(), '\0');
    const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    const bool gone = fd < 0;
    const ssize_t got = gone ? 0 : read(fd, arguments.data(), arguments.size());
    if (!gone) close(fd);
    if (gone || (got > 0 && arguments == path)) return;
    nanosleep(&kMoment, nullptr);
  }
}

Result start(const std::string& path) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  for (const int fd : {0, 1, 2}) {
    posix_spawn_file_actions_addopen(&actions, fd, "/dev/null", O_RDWR, 0);
  }
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSID);
  std::string name = path;
  std::string mark = kMark;
  char* const arguments[] = {name.data(), nullptr};
  char* const environment[] = {mark.data(), nullptr};
  pid_t pid = 0;
  const int error = posix_spawn(&pid, path.c_str(), &actions, &attributes, arguments, environment);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  if (error == 0) awaitProgram(pid, path);
  return error == 0 ? Result() : Result::failed("start", path, error);
}

Result startDaemon(const char* name) {
  const std::string path = std::string(kPrograms) + "/" + name;
  if (link(kProgram, path.c_str()) != 0) return Result::failed("make", path, errno);
  return start(path);
}

// An app without its executable is not installed any more.
Result startApp(const App& app) {
  const std::string path = app.bundlePath + "/" + app.executable;
  struct stat status = {};
  if (lstat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return {};
  if (mount(kProgram, path.c_str(), nullptr, MS_BIND, nullptr) != 0) {
    return Result::failed("put a program on", path, errno);
  }
  return start(path);
}

}  // namespace

void idleIfOfPhone() {
  const std::string_view mark = kMark;
  const char* value = std::getenv(std::string(mark.substr(0, mark.find('='))).c_str());
  if (value == nullptr) return;
  for (;;)
    pause();
}

Result startProcesses(const Description& description) {
  if (Result r = copyThisProgram(); !r) return r;
  for (const char* daemon : {"SpringBoard", "securityd", "secd"}) {
    if (Result r = startDaemon(daemon); !r) return r;
  }
  for (const App& app : description.apps) {
    if (Result r = startApp(app); !r) return r;
    if (app.identifier != kSafariIdentifier) continue;
    if (Result r = startDaemon("SafariViewService"); !r) return r;
  }
  return {};
}

}  // namespace morvane::phone
