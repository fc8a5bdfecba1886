#include "reliability/faulty_run.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace morvane::test {
namespace {

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

template <typename T>
bool holds(const std::vector<T>& values, T value) {
  return std::find(values.begin(), values.end(), value) != values.end();
}

bool fails(const Fault& fault, const Call& call) {
  if (fault.kind == Fault::Kind::failOnce) return call.count == fault.at;
  return fault.kind == Fault::Kind::failFromThere && call.count >= fault.at &&
         holds(possibleErrors(call), fault.error);
}

}  // namespace

FaultyRun runFaulty(const std::vector<std::string>& arguments, const Fault& fault,
                    const AtCall& atCall) {
  FaultyRun run;
  const auto carryOut = [&](const Call& call) {
    run.calls.push_back(call);
    if (atCall) atCall(call);
    if (call.number == SYS_exit_group) run.openAtEnd = openDescriptors(call.pid);
    if (fault.kind == Fault::Kind::kill && call.count == fault.at) {
      ::kill(call.pid, SIGKILL);
    } else if (call.number == SYS_clock_nanosleep) {
      call.answer(0);
    } else if (fails(fault, call)) {
      // brk has no error of its own: it answers where the break still is, brk(2).
      call.answer(call.number == SYS_brk ? 0 : -fault.error);
    }
  };
  run.outcome = cli(arguments, {.atCall = carryOut});
  return run;
}

std::vector<int> possibleErrors(const Call& call) {
  if (call.number == SYS_write && call.arguments[0] <= STDERR_FILENO) return {};
  const bool reads = call.number == SYS_openat && (call.arguments[2] & O_CREAT) == 0;
  const long number = reads ? SYS_openat2 : call.number;
  for (const Failures& failures : kFailures) {
    if (holds(failures.calls, number)) return failures.errors;
  }
  return {};
}

}  // namespace morvane::test
