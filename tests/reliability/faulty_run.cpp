#include "reliability/faulty_run.h"

#include <fcntl.h>
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
/// What calls can fail with, by their manual pages. Not close, which closes all the same: traced, a
/// call that fails is not made.
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

}  // namespace

bool fails(const Fault& fault, const Call& call) {
  if (fault.kind == Fault::Kind::failOnce) return call.count == fault.at;
  return fault.kind == Fault::Kind::failFromThere && call.count >= fault.at &&
         std::ranges::count(possibleErrors(call), fault.error) > 0;
}

std::vector<int> possibleErrors(const Call& call) {
  if (call.number == SYS_write && call.arguments[0] <= STDERR_FILENO) return {};
  const bool reads = call.number == SYS_openat && (call.arguments[2] & O_CREAT) == 0;
  const long number = reads ? SYS_openat2 : call.number;
  for (const Failures& failures : kFailures) {
    if (std::ranges::count(failures.calls, number) > 0) return failures.errors;
  }
  return {};
}

}  // namespace morvane::test
