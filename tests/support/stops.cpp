#include "support/stops.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <vector>

namespace morvane::test {
namespace {

/// The calls that stop a run, and which of their arguments are the folder and the name.
struct NamingCall {
  std::uint64_t number;
  size_t folder;
  size_t name;
};
constexpr size_t kNone = 6;
constexpr NamingCall kCalls[] = {
    {SYS_openat, 0, 1},     {SYS_openat2, 0, 1},    {SYS_unlinkat, 0, 1},
    {SYS_mkdirat, 0, 1},    {SYS_newfstatat, 0, 1}, {SYS_readlinkat, 0, 1},
    {SYS_symlinkat, 1, 2},  {SYS_fchownat, 0, 1},   {SYS_utimensat, 0, 1},
    {SYS_renameat2, 0, 1},  {SYS_renameat, 0, 1},   {SYS_getdents64, 0, kNone},
    {SYS_fchown, 0, kNone}, {SYS_fchmod, 0, kNone}, {SYS_flistxattr, 0, kNone},
#if defined(__x86_64__)
    {SYS_open, kNone, 0},   {SYS_unlink, kNone, 0}, {SYS_rmdir, kNone, 0},
    {SYS_mkdir, kNone, 0},  {SYS_stat, kNone, 0},   {SYS_lstat, kNone, 0},
#endif
};

std::string textAt(pid_t pid, std::uint64_t address) {
  std::array<char, PATH_MAX> text{};
  const int fd = ::open(("/proc/" + std::to_string(pid) + "/mem").c_str(), O_RDONLY | O_CLOEXEC);
  const ssize_t got = ::pread(fd, text.data(), text.size() - 1, static_cast<off_t>(address));
  ::close(fd);
  return got > 0 ? text.data() : "";
}

std::string folderAt(pid_t pid, std::uint64_t fd) {
  const bool current = static_cast<int>(fd) == AT_FDCWD;
  const std::string link = "/proc/" + std::to_string(pid) +
                           (current ? "/cwd" : "/fd/" + std::to_string(static_cast<int>(fd)));
  std::array<char, PATH_MAX> text{};
  return ::readlink(link.c_str(), text.data(), text.size() - 1) > 0 ? text.data() : "";
}

std::string pathOf(const Stop& stop, const NamingCall& call) {
  const std::string name = call.name == kNone ? "" : textAt(stop.pid, stop.arguments.at(call.name));
  if (name.starts_with('/') || call.folder == kNone) return name;
  const std::string folder = folderAt(stop.pid, stop.arguments.at(call.folder));
  return name.empty() ? folder : folder + "/" + name;
}

/// Lets the kernel stop the process at those calls and no others.
void stopAtNamingCalls() {
  std::vector<sock_filter> program{BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
  for (const NamingCall& call : kCalls) {
    program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<__u32>(call.number), 0, 1));
    program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRACE));
  }
  program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
  const sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
  ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
  if (::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0) ::_exit(125);
}

void stopAt(pid_t pid, size_t index, const std::function<void(Stop&)>& at) {
  __ptrace_syscall_info info{};
  ::ptrace(PTRACE_GET_SYSCALL_INFO, pid, sizeof info, &info);
  for (const NamingCall& call : kCalls) {
    if (call.number != info.seccomp.nr) continue;
    Stop stop{.pid = pid, .index = index, .call = call.number};
    std::copy(std::begin(info.seccomp.args), std::end(info.seccomp.args), stop.arguments.begin());
    stop.path = pathOf(stop, call);
    at(stop);
  }
}

#if defined(__x86_64__)
void changeRegisters(pid_t pid, const std::function<void(user_regs_struct&)>& change) {
  user_regs_struct registers{};
  ::ptrace(PTRACE_GETREGS, pid, nullptr, &registers);
  change(registers);
  ::ptrace(PTRACE_SETREGS, pid, nullptr, &registers);
}
#endif

}  // namespace

#if defined(__x86_64__)
bool stopsCanChangeCalls() {
  return true;
}
void Stop::refuse(int error) const {
  changeRegisters(pid, [error](auto& registers) {
    registers.orig_rax = ~0ULL;  // skipped, and its result is what is there already (seccomp(2))
    registers.rax = static_cast<unsigned long long>(-error);
  });
}
void Stop::set(size_t argument, std::uint64_t value) const {
  changeRegisters(pid, [=](auto& registers) {
    (argument == 0 ? registers.rdi : argument == 1 ? registers.rsi : registers.rdx) = value;
  });
}
#else
bool stopsCanChangeCalls() {
  return false;
}
void Stop::refuse(int) const {
  FAIL() << "not written for this processor";
}
void Stop::set(size_t, std::uint64_t) const {
  FAIL() << "not written for this processor";
}
#endif

StoppedRuns::StoppedRuns(const std::function<void()>& body) : pid_(::fork()) {
  if (pid_ == 0) {
    ::setenv("ASAN_OPTIONS", "detect_leaks=0", 1);  // not to be had in a process that is traced
    ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    stopAtNamingCalls();
    while (true) {
      ::raise(SIGSTOP);
      ::alarm(60);
      body();
    }
  }
  ::waitpid(pid_, nullptr, 0);
  ::ptrace(PTRACE_SETOPTIONS, pid_, nullptr, PTRACE_O_TRACESECCOMP | PTRACE_O_EXITKILL);
}

StoppedRuns::~StoppedRuns() {
  ::kill(pid_, SIGKILL);
  ::waitpid(pid_, nullptr, 0);
}

int StoppedRuns::run(const std::function<void(Stop&)>& at) {
  int status = 0;
  size_t count = 0;
  int signal = 0;
  while (true) {
    ::ptrace(PTRACE_CONT, pid_, nullptr, signal);
    ::waitpid(pid_, &status, 0);
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    if (WSTOPSIG(status) == SIGSTOP) return 0;
    const bool call = status >> 8 == (SIGTRAP | (PTRACE_EVENT_SECCOMP << 8));
    if (call) stopAt(pid_, count++, at);
    signal = WSTOPSIG(status) == SIGTRAP ? 0 : WSTOPSIG(status);
  }
}

}  // namespace morvane::test
