// The tool's code in a child of the test, over a layer, put in at link time, that fails as told:
// every call of the C library that reaches the file system, and every allocation. So that the
// sanitizers see what each failure leaves behind.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <new>

#include "cli/commands.h"
#include "reliability/faulty_run.h"
#include "report/output.h"

namespace morvane::test {

const char* const kEnded = "refused_";
const char* const kFailed = "layer_";

namespace {

bool running = false;  // the tool, in this process

/// What the child knows and the test wants to.
struct Told {
  Fault fault;
  size_t allocations = 0;
  size_t count = 0;
  size_t openAtEnd = 0;
  Call calls[5000];
};
Told& told = *new (
    ::mmap(nullptr, sizeof(Told), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Told;

bool failsNow(long number, const std::array<unsigned long, 6>& arguments) {
  if (!running || told.count == std::size(told.calls)) return false;
  Call& call = told.calls[told.count++];
  call = {::getpid(), told.count, number, arguments};
  running = false;  // while we look at it
  const bool failing = fails(told.fault, call);
  running = true;
  errno = failing ? told.fault.error : errno;
  return failing;
}

void* allocate(size_t size) {
  if (running && ++told.allocations == told.fault.at && told.fault.kind == Fault::Kind::end)
    std::get_new_handler()();
  void* memory = std::malloc(size == 0 ? 1 : size);
  if (memory == nullptr) std::abort();
  return memory;
}

void atEnd() {
  running = false;
  told.openAtEnd = openDescriptors(::getpid());
}

}  // namespace

FaultyRun runFaulty(const std::vector<std::string>& arguments, const Fault& fault,
                    const AtCall& /*atCall*/) {
  told.fault = fault;
  told.allocations = told.count = told.openAtEnd = 0;
  FaultyRun run;
  run.outcome = collect([&] {
    std::vector<const char*> words{"morvane_cli"};
    for (const std::string& argument : arguments)
      words.push_back(argument.c_str());
    std::set_new_handler([] { (void)std::raise(SIGKILL); });
    std::atexit(atEnd);
    prepareStreams();
    running = true;
    std::exit(static_cast<int>(morvane::runCommand(words)));
  });
  run.calls.assign(told.calls, told.calls + told.count);
  run.openAtEnd = told.openAtEnd;
  return run;
}

}  // namespace morvane::test

using morvane::test::failsNow;

// What a process has freed is copied at each fork as long as the sanitizer keeps it. What it has
// not freed goes with it; to look for that takes a third of the time.
extern "C" const char* __asan_default_options() {  // NOLINT: the sanitizer's name
  return "quarantine_size_mb=1:detect_leaks=0";
}

// NOLINTBEGIN: the linker's names for a function and for what it puts before it
// clang-format off
void* operator new(size_t size) { return morvane::test::allocate(size); }
void* operator new[](size_t size) { return morvane::test::allocate(size); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, size_t /*size*/) noexcept { std::free(memory); }
void operator delete[](void* memory, size_t /*size*/) noexcept { std::free(memory); }

// All of these take their arguments in six registers and answer in one, so that one form serves
// all.
#define FAILING(name, number)                                                               \
  extern "C" long __real_##name(long, long, long, long, long, long);                        \
  extern "C" long __wrap_##name(long a, long b, long c, long d, long e, long f) {           \
    const auto word = [](long value) { return static_cast<unsigned long>(value); };         \
    const bool fails = failsNow(number, {word(a), word(b), word(c), word(d), word(e), word(f)}); \
    return fails ? -1 : __real_##name(a, b, c, d, e, f);                                    \
  }
FAILING(copy_file_range, SYS_copy_file_range) FAILING(fchmod, SYS_fchmod)
FAILING(fchown, SYS_fchown) FAILING(fchownat, SYS_fchownat) FAILING(flistxattr, SYS_flistxattr)
FAILING(fstat, SYS_newfstatat) FAILING(fstatat, SYS_newfstatat) FAILING(fsync, SYS_fsync)
FAILING(ftruncate, SYS_ftruncate) FAILING(futimens, SYS_utimensat) FAILING(mkdirat, SYS_mkdirat)
FAILING(openat, SYS_openat) FAILING(read, SYS_read) FAILING(readlinkat, SYS_readlinkat)
FAILING(renameat, SYS_renameat) FAILING(renameat2, SYS_renameat2)
FAILING(symlinkat, SYS_symlinkat) FAILING(syncfs, SYS_syncfs) FAILING(unlinkat, SYS_unlinkat)
FAILING(utimensat, SYS_utimensat) FAILING(write, SYS_write)
FAILING(syscall, a)
    // clang-format on
    extern "C" int __real_close(int fd);
extern "C" int __wrap_close(int fd) {
  // Where something was written, it can fail as fsync does, and closes all the same.
  const bool written = (::fcntl(fd, F_GETFL) & O_ACCMODE) != O_RDONLY;
  const int result = __real_close(fd);
  return written && failsNow(SYS_fsync, {static_cast<unsigned long>(fd)}) ? -1 : result;
}
extern "C" int __wrap_nanosleep(const timespec*, timespec*) {
  return 0;
}
// NOLINTEND
