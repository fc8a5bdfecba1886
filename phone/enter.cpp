#include "phone/enter.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "phone/lockdown.h"

namespace morvane::phone {
namespace {

constexpr int kNamespaces = CLONE_NEWPID | CLONE_NEWIPC | CLONE_NEWNET | CLONE_NEWUTS;
// Begins the report of process 1 when the entry went well; a reason in words never does so.
constexpr char kReady = '\0';

// The signals that a user or a controlling program sends to what it started.
sigset_t watchedSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGCHLD, SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGUSR1, SIGUSR2}) {
    sigaddset(&signals, signal);
  }
  return signals;
}

std::string firstLine(const char* path) {
  char text[512] = {};
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return {};
  const ssize_t length = read(fd, text, sizeof text - 1);
  close(fd);
  std::string line(text, length > 0 ? static_cast<std::size_t>(length) : 0);
  return line.substr(0, line.find('\n'));
}

// What stands in the way of an ordinary user, as far as the kernel tells.
std::string howToAllow() {
  if (firstLine("/proc/sys/kernel/unprivileged_userns_clone") == "0") {
    return "allow it with: sysctl kernel.unprivileged_userns_clone=1";
  }
  if (firstLine("/proc/sys/kernel/apparmor_restrict_unprivileged_userns") == "1") {
    return "allow it with: sysctl kernel.apparmor_restrict_unprivileged_userns=0";
  }
  if (firstLine("/proc/sys/user/max_user_namespaces") == "0") {
    return "allow it with: sysctl user.max_user_namespaces=10000";
  }
  return "run as root, or in a container as privileged";
}

Result notPermitted(int error) {
  const Result plain = Result::failed("make", "private namespaces", error);
  return Result::failed(plain.reason() + "; " + howToAllow());
}

bool writeTo(const char* path, const std::string& text) {
  const int fd = open(path, O_WRONLY | O_CLOEXEC);
  if (fd < 0) return false;
  const ssize_t written = write(fd, text.data(), text.size());
  close(fd);
  return written == static_cast<ssize_t>(text.size());
}

Result unshareAsUser() {
  const std::string user = std::to_string(geteuid());
  const std::string group = std::to_string(getegid());
  if (unshare(CLONE_NEWUSER | kNamespaces) != 0) return notPermitted(errno);
  if (!writeTo("/proc/self/setgroups", "deny") ||
      !writeTo("/proc/self/uid_map", "0 " + user + " 1") ||
      !writeTo("/proc/self/gid_map", "0 " + group + " 1")) {
    return Result::failed("map", "the user to root", errno);
  }
  return {};
}

// Root in a container may lack what it takes, yet be allowed what ordinary users are.
Result unshareNamespaces() {
  if (geteuid() == 0 && unshare(kNamespaces) == 0) return {};
  return unshareAsUser();
}

struct Pipe {
  int reading = -1;
  int writing = -1;
};

int toWaitStatus(const siginfo_t& info) {
  if (info.si_code == CLD_EXITED) return (info.si_status & 0xff) << 8;
  return info.si_status & 0x7f;
}

// True for a signal that was meant for this process alone: the terminal's reach the others anyway.
bool sentToUs(const siginfo_t& info) {
  return info.si_code != SI_KERNEL;
}

// Reaps whatever ends; true once `body` has, with its wait status.
bool reapUntil(pid_t body, int& status) {
  siginfo_t info = {};
  while (waitid(P_ALL, 0, &info, WEXITED | WNOHANG) == 0 && info.si_pid != 0) {
    if (info.si_pid == body) {
      status = toWaitStatus(info);
      return true;
    }
    info = {};
  }
  return false;
}

// Waits for `child` and passes signals on to it meanwhile. Returns its wait status.
int superviseChild(pid_t child) {
  const sigset_t watched = watchedSignals();
  int status = 0;
  while (!reapUntil(child, status)) {
    siginfo_t info = {};
    const int signal = sigwaitinfo(&watched, &info);
    if (signal > 0 && signal != SIGCHLD && sentToUs(info)) kill(child, signal);
  }
  return status;
}

// Ends the calling process the way `status` tells of another.
[[noreturn]] void endLike(int status) {
  if (WIFSIGNALED(status)) {
    const struct rlimit noCore = {0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    sigset_t one;
    sigemptyset(&one);
    sigaddset(&one, WTERMSIG(status));
    signal(WTERMSIG(status), SIG_DFL);
    sigprocmask(SIG_UNBLOCK, &one, nullptr);
    raise(WTERMSIG(status));
    _exit(128 + WTERMSIG(status));
  }
  _exit(WEXITSTATUS(status));
}

// The old working folder may lie under what is hidden or protected now.
void reenterWorkingFolder(const char* path) {
  if (path[0] != '/' || chdir(path) != 0) {
    if (chdir("/") != 0) _exit(1);
  }
}

Result prepareInside(const EnterOptions& options) {
  char folder[PATH_MAX] = {};
  if (getcwd(folder, sizeof folder) == nullptr) folder[0] = '\0';
  if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0) return Result::failed("watch", "the parent", errno);
  prctl(PR_SET_NAME, "launchd");
  if (unshare(CLONE_NEWNS) != 0) return notPermitted(errno);
  if (Result r = lockDownMounts(options); !r) return r;
  reenterWorkingFolder(folder);
  return options.asInit ? options.asInit() : Result();
}

// Process 1 of the phone. Returns only in the process that goes on inside.
void becomeInit(const EnterOptions& options, const Pipe& report, const sigset_t& oldMask) {
  close(report.reading);
  const Result prepared = prepareInside(options);
  const std::string message = prepared ? std::string(1, kReady) : prepared.reason();
  // When the parent died before this process asked to die with it, the pipe has no reader.
  const bool told = write(report.writing, message.data(), message.size()) > 0;
  if (!prepared || !told) _exit(1);
  const pid_t body = fork();
  if (body < 0) _exit(1);
  if (body > 0) {
    const int status = superviseChild(body);
    _exit(write(report.writing, &status, sizeof status) == sizeof status ? 0 : 1);
  }
  close(report.writing);
  if (options.privilege == Privilege::dropped && !dropPrivileges()) _exit(1);
  sigprocmask(SIG_SETMASK, &oldMask, nullptr);
}

// Up to `most` bytes of the report; fewer only at its end.
std::string readReport(int fd, std::size_t most) {
  std::string text(most, '\0');
  std::size_t length = 0;
  while (length < most) {
    const ssize_t got = read(fd, text.data() + length, most - length);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    length += static_cast<std::size_t>(got);
  }
  text.resize(length);
  return text;
}

// The old process: learns how the entry went, and when it went well ends as the inside does.
Result stayOutside(pid_t init, const EnterOptions& options, const Pipe& report) {
  close(report.writing);
  const std::string begin = readReport(report.reading, 1);
  if (begin != std::string(1, kReady)) {
    const std::string reason = begin + readReport(report.reading, 4096);
    waitpid(init, nullptr, 0);
    close(report.reading);
    return Result::failed(reason.empty() ? "the phone's first process died" : reason);
  }
  int status = superviseChild(init);
  const std::string told = readReport(report.reading, sizeof status);
  if (told.size() == sizeof status) std::memcpy(&status, told.data(), sizeof status);
  if (options.afterwards) options.afterwards(status);
  endLike(status);
}

}  // namespace

Result enterPhone(const EnterOptions& options) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return Result::failed("make", "a pipe", errno);
  const Pipe report{ends[0], ends[1]};
  if (Result r = unshareNamespaces(); !r) return r;
  fflush(nullptr);
  const sigset_t watched = watchedSignals();
  sigset_t oldMask;
  sigprocmask(SIG_BLOCK, &watched, &oldMask);
  signal(SIGCHLD, SIG_DFL);
  const pid_t init = fork();
  if (init < 0) return Result::failed("start", "the phone's first process", errno);
  if (init > 0) {
    Result failure = stayOutside(init, options, report);
    sigprocmask(SIG_SETMASK, &oldMask, nullptr);
    return failure;
  }
  becomeInit(options, report, oldMask);
  return {};
}

}  // namespace morvane::phone
