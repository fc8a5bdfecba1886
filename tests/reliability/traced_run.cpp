#include "reliability/traced_run.h"

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
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <iterator>

namespace morvane::test {
namespace {

constexpr size_t kEndless = 200000;  // calls; the runs here take some hundreds

struct Failures {
  std::vector<int> errors;
  std::vector<long> calls;
};
/// What calls can fail with, by their manual pages. Not close: it closes all the same, and a call
/// that is made to fail here is not made.
const Failures kFailures[] = {
    {{ENOSPC, EIO, EDQUOT, EACCES, EMFILE, ENOMEM}, {SYS_openat}},
    {{EIO, EACCES, EMFILE, ENOMEM}, {SYS_openat2}},
    {{ENOSPC, EIO, EDQUOT, EACCES, ENOMEM},
     {SYS_mkdirat, SYS_symlinkat, SYS_renameat, SYS_renameat2}},
    {{ENOSPC, EIO, EDQUOT},
     {SYS_write, SYS_pwrite64, SYS_copy_file_range, SYS_ftruncate, SYS_fsetxattr, SYS_setxattr,
      SYS_fsync, SYS_fdatasync, SYS_syncfs}},
    {{EIO}, {SYS_read, SYS_pread64, SYS_getdents64}},
    {{EIO, EACCES, ENOMEM},
     {SYS_unlinkat, SYS_newfstatat, SYS_readlinkat, SYS_fchmod, SYS_fchown, SYS_fchownat,
      SYS_utimensat}},
    {{EIO, ENOMEM}, {SYS_flistxattr, SYS_fgetxattr, SYS_listxattr, SYS_getxattr}},
    {{ENOMEM}, {SYS_mmap, SYS_mremap, SYS_brk}},
#ifdef __x86_64__
    {{EIO, EACCES, ENOMEM}, {SYS_unlink}},
#endif
};

/// Skips the call at whose entry `pid` is held, and gives it a result (seccomp(2)).
void answer(pid_t pid, long result) {
#ifdef __x86_64__
  ::ptrace(PTRACE_POKEUSER, pid, offsetof(user_regs_struct, orig_rax), -1L);
  ::ptrace(PTRACE_POKEUSER, pid, offsetof(user_regs_struct, rax), result);
#else
  FAIL() << "not written for this processor";
#endif
}

/// The child's side: a process whose parent is told of each of its calls, from its exec on.
[[noreturn]] void becomeTraced(std::vector<std::string>& words, int out, int err) {
  ::dup2(::open("/dev/null", O_RDONLY | O_CLOEXEC), 0);
  ::dup2(out, 1);
  ::dup2(err, 2);
  ::setenv("ASAN_OPTIONS", "detect_leaks=0", 1);  // not to be had in a process that is traced
  std::vector<char*> argv;
  for (std::string& word : words)
    argv.push_back(word.data());
  argv.push_back(nullptr);
  ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
  ::raise(SIGSTOP);
  sock_filter all[] = {BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRACE)};
  const sock_fprog filter{1, all};
  ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
  ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter);
  ::execv(argv[0], argv.data());
  ::_exit(127);
}

std::string drained(int fd) {
  std::string text(1 << 16, '\0');
  const ssize_t got = ::read(fd, text.data(), text.size());
  text.resize(got > 0 ? static_cast<size_t>(got) : 0);
  ::close(fd);
  return text;
}

size_t openDescriptors(pid_t pid) {
  std::error_code gone;
  const std::filesystem::directory_iterator open("/proc/" + std::to_string(pid) + "/fd", gone);
  return gone ? 0 : static_cast<size_t>(std::distance(begin(open), end(open)));
}

bool fails(const Fault& fault, size_t count, const SystemCall& call) {
  if (fault.kind == Fault::Kind::failOnce) return count == fault.at;
  if (fault.kind != Fault::Kind::failFromThere || count < fault.at) return false;
  const std::vector<int> errors = possibleErrors(call);
  return std::find(errors.begin(), errors.end(), fault.error) != errors.end();
}

/// At the entry of a call: counts it and carries out the fault.
void atCall(pid_t pid, const Fault& fault, const AtEntry& atEntry, TracedRun& run) {
  __ptrace_syscall_info info{};
  ::ptrace(PTRACE_GET_SYSCALL_INFO, pid, sizeof info, &info);
  SystemCall call{static_cast<long>(info.seccomp.nr), {}};
  if (call.number == SYS_execve) return;
  std::copy(std::begin(info.seccomp.args), std::end(info.seccomp.args), call.arguments.begin());
  run.calls.push_back(call);
  const size_t count = run.calls.size();
  if (atEntry) atEntry(count, call);
  if (call.number == SYS_exit_group) run.openAtEnd = openDescriptors(pid);
  if (count > kEndless) ADD_FAILURE() << "does not end";
  if (count > kEndless || (fault.kind == Fault::Kind::kill && count == fault.at)) {
    ::kill(pid, SIGKILL);
  } else if (call.number == SYS_clock_nanosleep) {
    answer(pid, 0);
  } else if (fails(fault, count, call)) {
    // brk has no error of its own: it answers where the break still is, brk(2).
    answer(pid, call.number == SYS_brk ? 0 : -fault.error);
  }
}

/// Follows the process to its end; returns its wait status.
int follow(pid_t pid, const Fault& fault, const AtEntry& atEntry, TracedRun& run) {
  int status = 0;
  ::waitpid(pid, &status, 0);
  ::ptrace(PTRACE_SETOPTIONS, pid, nullptr, PTRACE_O_TRACESECCOMP | PTRACE_O_EXITKILL);
  for (int signal = 0; WIFSTOPPED(status);) {
    const bool call = status >> 8 == (SIGTRAP | PTRACE_EVENT_SECCOMP << 8);
    if (call) atCall(pid, fault, atEntry, run);
    const bool ours = WSTOPSIG(status) == SIGTRAP || WSTOPSIG(status) == SIGSTOP;
    signal = ours ? 0 : WSTOPSIG(status);
    ::ptrace(PTRACE_CONT, pid, nullptr, signal);
    ::waitpid(pid, &status, 0);
  }
  return status;
}

}  // namespace

TracedRun runTraced(std::vector<std::string> arguments, const Fault& fault,
                    const AtEntry& atEntry) {
  arguments.insert(arguments.begin(), MORVANE_CLI);
  std::array<int, 2> out{};
  std::array<int, 2> err{};
  if (::pipe2(out.data(), O_CLOEXEC) != 0 || ::pipe2(err.data(), O_CLOEXEC) != 0) std::abort();
  TracedRun run;
  const pid_t pid = ::fork();
  if (pid == 0) becomeTraced(arguments, out[1], err[1]);
  ::close(out[1]);
  ::close(err[1]);
  const int status = follow(pid, fault, atEntry, run);
  run.outcome = {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), drained(out[0]),
                 drained(err[0])};
  return run;
}

std::vector<int> possibleErrors(const SystemCall& call) {
  if (call.number == SYS_write && call.arguments[0] <= STDERR_FILENO) return {};
  const bool reads = call.number == SYS_openat && (call.arguments[2] & O_CREAT) == 0;
  const long number = reads ? SYS_openat2 : call.number;
  for (const Failures& failures : kFailures) {
    const auto& calls = failures.calls;
    if (std::find(calls.begin(), calls.end(), number) != calls.end()) return failures.errors;
  }
  return {};
}

size_t firstOwnCall(const TracedRun& run) {
  const auto isOwn = [](const SystemCall& call) {
    return call.number == SYS_fcntl && call.arguments[1] == F_GETFD;
  };
  const auto own = std::find_if(run.calls.begin(), run.calls.end(), isOwn);
  return static_cast<size_t>(own - run.calls.begin()) + 1;
}

}  // namespace morvane::test
