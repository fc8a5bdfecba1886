// The store's operations over a layer, put in at link time, that fails as told: every call of the C
// library that reaches the file system, and every allocation. In-process, so that the sanitizers
// see what each failure leaves behind.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

#include "backup/store.h"
#include "backup/tree_copy.h"
#include "cli/commands.h"
#include "reliability/world.h"
#include "reset/wipe.h"
#include "support/case.h"
#include "support/trace.h"

namespace {

enum class From { once, thereOn };

/// What fails: the call with the number `at`, or all from there on; nothing while `at` is 0.
struct Plan {
  size_t at = 0;
  int error = 0;
  From from = From::once;
  size_t calls = 0;
  size_t allocationAt = 0;
  size_t allocations = 0;
} plan;

bool failsNow() {
  ++plan.calls;
  if (plan.at == 0 || plan.calls < plan.at) return false;
  if (plan.calls > plan.at && plan.from == From::once) return false;
  errno = plan.error;
  return true;
}

void* allocate(size_t size) {
  if (plan.allocationAt != 0 && ++plan.allocations == plan.allocationAt) std::get_new_handler()();
  void* memory = std::malloc(size == 0 ? 1 : size);
  if (memory == nullptr) std::abort();
  return memory;
}

}  // namespace

// clang-format off
void* operator new(size_t size) { return allocate(size); }
void* operator new[](size_t size) { return allocate(size); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, size_t /*size*/) noexcept { std::free(memory); }
void operator delete[](void* memory, size_t /*size*/) noexcept { std::free(memory); }
// clang-format on

// NOLINTBEGIN: the linker's names for a function and for what it puts before it
// All of these take their arguments in six registers and answer in one, so that one form serves
// all.
#define FAILING(name)                                                             \
  extern "C" long __real_##name(long, long, long, long, long, long);              \
  extern "C" long __wrap_##name(long a, long b, long c, long d, long e, long f) { \
    return failsNow() ? -1 : __real_##name(a, b, c, d, e, f);                     \
  }
// clang-format off
FAILING(copy_file_range) FAILING(fchmod) FAILING(fchown) FAILING(fchownat) FAILING(flistxattr)
FAILING(fstat) FAILING(fstatat) FAILING(fsync) FAILING(ftruncate) FAILING(futimens)
FAILING(mkdirat) FAILING(openat) FAILING(read) FAILING(readlinkat) FAILING(renameat)
FAILING(renameat2) FAILING(symlinkat) FAILING(syncfs) FAILING(syscall) FAILING(unlinkat)
FAILING(utimensat) FAILING(write)
    // clang-format on
    extern "C" int __real_close(int fd);
extern "C" int __wrap_close(int fd) {
  const int result = __real_close(fd);  // which a failure does not prevent
  return failsNow() ? -1 : result;
}
// NOLINTEND

namespace morvane::test {
namespace {

const std::string kFrom = kContainer + "/Documents";

/// What `backup` does between its arguments and its answer. Whether it would say that it worked.
bool backUp() {
  CopyTally tally;
  Staging staging("one");
  copyTreeReplacing({AT_FDCWD, kFrom}, {staging.fd(), kApp + "/Documents"}, tally);
  return !staging.setupError() && tally.fatalError == 0 && staging.publish({kApp}).empty();
}
/// What `restore` does, and `removebackup`.
bool restoreFolder() {
  CopyTally tally;
  wipeDirContents(kFrom);
  copyTreeReplacing({AT_FDCWD, kBackup + "/" + kApp + "/Documents"}, {AT_FDCWD, kFrom}, tally);
  return tally.failed == 0;
}
bool removeBackup() {
  return removeIfExists(kBackup);
}

class FailingLayer : public Case {
 protected:
  /// Runs `operation` over a layer that fails at call `at`.
  void runFailing(bool (*operation)(), size_t at, int error, From from) {
    SCOPED_TRACE("call " + std::to_string(at) + ": " + std::strerror(error));
    putWorld();
    const size_t open = openDescriptors(::getpid());
    plan = {.at = at, .error = error, .from = from};
    const bool worked = operation();
    plan = {};
    ASSERT_EQ(openDescriptors(::getpid()), open);
    if (operation != backUp) return;
    const Tree backup = below(world(), kBackup);
    // A late failure that nothing can be done about any more leaves the new one, whole.
    const bool late = from == From::thereOn && backup == newer_;
    // One entry that could not be copied, for a reason of its own, is no failure of the backup.
    const bool full = error == ENOSPC && from == From::thereOn;
    const bool whole = full ? backup == newer_ : backup.contains("/manifest.txt");
    ASSERT_TRUE(worked ? whole : late || backup == older_);
  }

  Tree older_;
  Tree newer_;
};

TEST_F(FailingLayer, EveryErrorOfEveryCall) {
  size_t runs = 0;
  for (bool (*const operation)() : {removeBackup, restoreFolder, backUp}) {
    putWorld();
    older_ = below(world(), kBackup);
    plan = {};
    EXPECT_TRUE(operation());
    const size_t calls = plan.calls;
    newer_ = below(world(), kBackup);
    for (size_t at = 1; at <= calls; ++at) {
      for (const int error : {ENOSPC, EIO, EDQUOT, EACCES, EMFILE, ENOMEM}) {
        for (const From from : {From::once, From::thereOn}) {
          ASSERT_NO_FATAL_FAILURE(runFailing(operation, at, error, from));
          ++runs;
        }
      }
    }
  }
  figure("layer_failed", runs);
}

constexpr int kNoMemory = 77;

TEST_F(FailingLayer, EveryAllocationRefused) {
  size_t runs = 0;
  for (const Command& command : commands()) {
    putWorld();
    const Tree before = world();
    int ended = kNoMemory;
    for (size_t at = 1; ended == kNoMemory; ++at) {
      SCOPED_TRACE(command.name + ", allocation " + std::to_string(at));
      putWorld();
      ended = runInChild([&] {
        for (const int stream : {STDOUT_FILENO, STDERR_FILENO})
          ::dup2(::open("/dev/null", O_WRONLY | O_CLOEXEC), stream);
        std::vector<const char*> words{"morvane_cli"};
        for (const std::string& word : command.arguments)
          words.push_back(word == "kill" ? "clear" : word.c_str());  // without its pauses
        std::set_new_handler([] { ::_exit(kNoMemory); });
        plan = {.allocationAt = at};
        ::_exit(static_cast<int>(morvane::runCommand(words)));
      });
      const Tree now = world();
      ASSERT_EQ(trespasses(command, before, now), "");
      ASSERT_TRUE(ended == 0 || ended == kNoMemory) << ended;
      // Without memory to the end, the older backup is kept, or the new one was whole before.
      const bool whole = below(before, kBackup) == below(now, kBackup) ||
                         now.contains(kBackup + "/" + kApp + "/Documents/folder/deeper/file");
      ASSERT_TRUE(whole || command.name != "backup");
      ++runs;
    }
    EXPECT_EQ(ended, 0);
  }
  EXPECT_GT(runs, 50U);
  figure("allocations_refused", runs - commands().size());
}

}  // namespace
}  // namespace morvane::test
