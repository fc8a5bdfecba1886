#include "support/trace.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
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
#include <filesystem>

namespace morvane::test {
namespace {

/// Calls that name an entry of a folder, or work on an open file: their arguments that say which.
struct NamingCall {
  long number;
  size_t folder;
  size_t name;
};
constexpr size_t kNone = 6;
constexpr NamingCall kNamingCalls[] = {
    {SYS_openat, 0, 1},     {SYS_openat2, 0, 1},    {SYS_unlinkat, 0, 1},
    {SYS_mkdirat, 0, 1},    {SYS_newfstatat, 0, 1}, {SYS_readlinkat, 0, 1},
    {SYS_symlinkat, 1, 2},  {SYS_fchownat, 0, 1},   {SYS_utimensat, 0, 1},
    {SYS_renameat2, 0, 1},  {SYS_renameat, 0, 1},   {SYS_getdents64, 0, kNone},
    {SYS_fchown, 0, kNone}, {SYS_fchmod, 0, kNone}, {SYS_flistxattr, 0, kNone},
};

std::string textAt(pid_t pid, unsigned long address) {
  std::array<char, PATH_MAX> text{};
  const int fd = ::open(("/proc/" + std::to_string(pid) + "/mem").c_str(), O_RDONLY | O_CLOEXEC);
  const ssize_t got = ::pread(fd, text.data(), text.size() - 1, static_cast<off_t>(address));
  ::close(fd);
  return got > 0 ? text.data() : "";
}

std::string pathOfDescriptor(pid_t pid, int fd) {
  const std::string of = "/proc/" + std::to_string(pid);
  std::error_code none;
  return std::filesystem::read_symlink(
      fd == AT_FDCWD ? of + "/cwd" : of + "/fd/" + std::to_string(fd), none);
}

void traceMe() {
  ::setenv("ASAN_OPTIONS", "detect_leaks=0", 1);  // not to be had in a process that is traced
  ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
  ::raise(SIGSTOP);
  sock_filter all[] = {BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRACE)};
  const sock_fprog filter{1, all};
  ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
  if (::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0) ::_exit(125);
}

/// Has this process, and those that it starts, run where it is now. Two that hand on to one another
/// at each call do so in a tenth of the time on one processor. Returns where it might run before.
cpu_set_t stayOnThisProcessor() {
  cpu_set_t before;
  cpu_set_t here;
  CPU_ZERO(&here);
  CPU_SET(static_cast<size_t>(::sched_getcpu()), &here);
  ::sched_getaffinity(0, sizeof before, &before);
  ::sched_setaffinity(0, sizeof here, &here);
  return before;
}

/// Follows a process, stopped at its beginning, to its end. Returns its wait status.
int follow(pid_t pid, const AtCall& atCall) {
  int status = 0;
  ::waitpid(pid, &status, 0);
  ::ptrace(PTRACE_SETOPTIONS, pid, nullptr, PTRACE_O_TRACESECCOMP | PTRACE_O_EXITKILL);
  for (Call call{.pid = pid}; WIFSTOPPED(status);) {
    if (status >> 8 == (SIGTRAP | PTRACE_EVENT_SECCOMP << 8)) {
      __ptrace_syscall_info info{};
      ::ptrace(PTRACE_GET_SYSCALL_INFO, pid, sizeof info, &info);
      call.number = static_cast<long>(info.seccomp.nr);
      std::copy_n(info.seccomp.args, call.arguments.size(), call.arguments.begin());
      ++call.count;
      if (call.number == SYS_execve) {
        call.count = 0;
      } else {
        atCall(call);
      }
    }
    const int signal = WSTOPSIG(status);
    const bool ours = signal == SIGTRAP || signal == SIGSTOP;
    ::ptrace(PTRACE_CONT, pid, nullptr, ours ? 0 : signal);
    ::waitpid(pid, &status, 0);
  }
  return status;
}

}  // namespace

std::string Call::path() const {
  for (const NamingCall& call : kNamingCalls) {
    if (call.number != number) continue;
    const std::string name = call.name == kNone ? "" : textAt(pid, arguments.at(call.name));
    if (name.starts_with('/')) return name;
    const std::string folder = pathOfDescriptor(pid, static_cast<int>(arguments.at(call.folder)));
    return name.empty() ? folder : folder + "/" + name;
  }
  return "";
}

bool Call::opens() const {
  return number == SYS_openat || number == SYS_openat2;
}

#ifdef __x86_64__
void Call::answer(long result) const {
  ::ptrace(PTRACE_POKEUSER, pid, offsetof(user_regs_struct, orig_rax), -1L);  // skipped, seccomp(2)
  ::ptrace(PTRACE_POKEUSER, pid, offsetof(user_regs_struct, rax), result);
}
void Call::set(size_t argument, unsigned long value) const {
  constexpr size_t kArguments[] = {offsetof(user_regs_struct, rdi), offsetof(user_regs_struct, rsi),
                                   offsetof(user_regs_struct, rdx)};
  ::ptrace(PTRACE_POKEUSER, pid, kArguments[argument], value);
}
#else
void Call::answer(long) const {
  FAIL() << "calls cannot be changed on this processor";
}
void Call::set(size_t, unsigned long) const {
  answer(0);
}
#endif

int runInChild(const Body& body, const AtCall& atCall, const Body& before) {
  const cpu_set_t processors = atCall ? stayOnThisProcessor() : cpu_set_t{};
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::alarm(100);
    if (before) before();
    if (atCall) traceMe();
    body();
    ::_exit(0);
  }
  int status = 0;
  if (atCall) {
    status = follow(pid, atCall);
    ::sched_setaffinity(0, sizeof processors, &processors);
  } else {
    ::waitpid(pid, &status, 0);
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

size_t openDescriptors(pid_t pid) {
  const std::filesystem::directory_iterator open("/proc/" + std::to_string(pid) + "/fd");
  return static_cast<size_t>(std::distance(begin(open), end(open)));
}

}  // namespace morvane::test
