// The store's operations over a layer, put in at link time, that fails as told: every call of the C
// library that reaches the file system, and every allocation. In-process, so that the sanitizers
// see what each failure leaves behind.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <new>

#include "backup/store.h"
#include "backup/tree_copy.h"
#include "cli/commands.h"
#include "reliability/world.h"
#include "reset/wipe.h"
#include "support/case.h"

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
FAILING(copy_file_range)
FAILING(fchmod)
FAILING(fchown)
FAILING(fchownat)
FAILING(flistxattr)
FAILING(fstat)
FAILING(fstatat)
FAILING(fsync)
FAILING(ftruncate)
FAILING(futimens)
FAILING(mkdirat)
FAILING(openat)
FAILING(read)
FAILING(readlinkat)
FAILING(renameat)
FAILING(renameat2)
FAILING(symlinkat)
FAILING(syncfs)
FAILING(syscall)
FAILING(unlinkat)
FAILING(utimensat)
FAILING(write)
extern "C" int __real_close(int fd);
extern "C" int __wrap_close(int fd) {
  const int result = __real_close(fd);  // which a failure does not prevent
  return failsNow() ? -1 : result;
}
// NOLINTEND

namespace morvane::test {
namespace {

size_t openDescriptors() {
  const std::filesystem::directory_iterator open("/proc/self/fd");
  return static_cast<size_t>(std::distance(begin(open), end(open)));
}

const std::string kFrom = "/var/mobile/Containers/Data/Application/A/Documents";
const std::string kBackup = std::string(kStore) + "/one.morvane";

/// What `backup` does between its arguments and its answer. Whether it would say that it worked.
bool backUp() {
  CopyTally tally;
  Staging staging("one");
  copyTreeReplacing({AT_FDCWD, kFrom}, {staging.fd(), "app/Documents"}, tally);
  return !staging.setupError() && tally.fatalError == 0 && staging.publish({"app"}).empty();
}
/// What `restore` does, and `removebackup`.
bool restoreFolder() {
  CopyTally tally;
  wipeDirContents(kFrom);
  copyTreeReplacing({AT_FDCWD, kBackup + "/app/Documents"}, {AT_FDCWD, kFrom}, tally);
  return tally.failed == 0;
}
bool removeBackup() {
  return removeIfExists(kBackup);
}

void putSmallWorld() {
  std::filesystem::remove_all(kStore);
  std::filesystem::remove_all(kFrom);
  put(kFrom + "/file", "new");
  put(kFrom + "/folder/large", std::string(140000, 'n'));
  putLink(kFrom + "/link", "file");
  put(kBackup + "/manifest.txt", "app");
  put(kBackup + "/app/Documents/old", "old");
  for (const std::string& root : {kFrom, kBackup}) {
    for (const char* path : {"/file", "/folder/large", "/folder", "/link", "/manifest.txt",
                             "/app/Documents/old", "/app/Documents", "/app", ""}) {
      if (exists(root + path)) setOldTime(root + path);
    }
  }
}

class FailingLayer : public Case {
 protected:
  void SetUp() override {
    Case::SetUp();
    putWorld();  // in memory
    putSmallWorld();
    older_ = treeAt(kBackup);
    source_ = treeAt(kFrom);
  }

  /// What is wrong with the backup after a run that failed or `worked`.
  [[nodiscard]] std::string backupFaults(bool worked, int error, From from) const {
    const std::string kept = differences(older_, treeAt(kBackup));
    const std::string copied = differences(source_, treeAt(kBackup + "/app/Documents"));
    // A late failure that nothing can be done about any more leaves the new one, whole.
    const bool stuck = from == From::thereOn && copied.empty();
    if (!worked) return stuck ? "" : kept;
    if (contentOf(kBackup + "/manifest.txt") != "app") return "no manifest";
    return error == ENOSPC && from == From::thereOn ? copied : "";
  }

  /// Runs `operation` over a layer that fails at call `at`.
  void runFailing(bool (*operation)(), size_t at, int error, From from) {
    SCOPED_TRACE("call " + std::to_string(at) + ": " + std::strerror(error));
    putSmallWorld();
    const size_t open = openDescriptors();
    plan = {.at = at, .error = error, .from = from};
    const bool worked = operation();
    plan = {};
    ASSERT_EQ(openDescriptors(), open);
    const std::string faults = operation == backUp ? backupFaults(worked, error, from) : "";
    ASSERT_EQ(faults, "");
  }

  Tree older_;
  Tree source_;
};

TEST_F(FailingLayer, EveryErrorOfEveryCall) {
  size_t runs = 0;
  for (bool (*const operation)() : {backUp, restoreFolder, removeBackup}) {
    putSmallWorld();
    plan = {};
    EXPECT_TRUE(operation());
    const size_t calls = plan.calls;
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

/// Runs a command in a child whose allocation number `at` is refused; returns how it ended.
int runWithoutMemory(const Command& command, size_t at) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    for (const int stream : {STDOUT_FILENO, STDERR_FILENO})
      ::dup2(::open("/dev/null", O_WRONLY | O_CLOEXEC), stream);
    std::vector<const char*> words{"morvane_cli"};
    for (const std::string& word : command.arguments)
      words.push_back(word == "kill" ? "clear" : word.c_str());  // without its pauses
    std::set_new_handler([] { ::_exit(kNoMemory); });
    plan = {.allocationAt = at};
    ::_exit(static_cast<int>(morvane::runCommand(words)));
  }
  int status = 0;
  ::waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(FailingLayer, EveryAllocationRefused) {
  size_t runs = 0;
  for (const Command& command : commands()) {
    putWorld();
    const Tree before = world();
    size_t at = 1;
    for (int ended = kNoMemory; ended == kNoMemory; ++at) {
      putWorld();
      ended = runWithoutMemory(command, at);
      const Tree now = world();
      ASSERT_EQ(trespasses(command, before, now), "") << command.name << ", allocation " << at;
      if (ended == 0) break;
      ASSERT_EQ(ended, kNoMemory) << command.name << ", allocation " << at;
      const std::string older = kBackup;
      // Without memory to the end, the older backup is kept, or the new one was whole before.
      const bool whole = below(before, older) == below(now, older) ||
                         now.contains(older + "/" + kApp + "/Documents/folder/deeper/file");
      ASSERT_TRUE(whole || command.name != "backup") << "allocation " << at;
      ++runs;
    }
    EXPECT_GT(at, 10U);
  }
  figure("allocations_refused", runs);
}

}  // namespace
}  // namespace morvane::test
