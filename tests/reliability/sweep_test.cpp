// Each command, killed at every system call it makes, and failing at every system call that can
// fail.

#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "reliability/world.h"
#include "support/case.h"

namespace morvane::test {
namespace {

class Sweep : public Case, public ::testing::WithParamInterface<Command> {
 protected:
  void SetUp() override {
    Case::SetUp();
    putWorld();
    before_ = world();
    undisturbed_ = runTraced(GetParam().arguments);
    after_ = world();
    ASSERT_EQ(undisturbed_.outcome.status, 0) << undisturbed_.outcome;
    ASSERT_EQ(undisturbed_.outcome.out, GetParam().okLine);
    ASSERT_EQ(trespasses(GetParam(), before_, after_), "");
  }

  /// Whether the backup that the command replaces is whole, as it was or as it is to be.
  [[nodiscard]] bool backupIsWhole(const Tree& now) const {
    const std::string path = std::string(kStore) + "/one.morvane";
    const Tree backup = below(now, path);
    return GetParam().name != "backup" || backup == below(before_, path) ||
           backup == below(after_, path);
  }

  Tree before_;
  Tree after_;
  TracedRun undisturbed_;
};

TEST_P(Sweep, KilledAtEveryCall) {
  const size_t calls = undisturbed_.calls.size();
  for (size_t at = 1; at <= calls; ++at) {
    putWorld();
    const TracedRun killed = runTraced(GetParam().arguments, {Fault::Kind::kill, at});
    ASSERT_EQ(killed.outcome.status, 128 + SIGKILL) << "at call " << at;
    const Tree left = world();
    ASSERT_EQ(trespasses(GetParam(), before_, left), "") << "killed at call " << at;
    ASSERT_TRUE(backupIsWhole(left)) << "killed at call " << at;
    const TracedRun again = runTraced(GetParam().arguments);
    const bool wasDone = again.outcome.err == "REMOVE_FAIL: not found\n";
    ASSERT_TRUE(again.outcome.out == GetParam().okLine || wasDone) << again.outcome;
    ASSERT_EQ(differences(after_, world()), "") << "killed at call " << at << ", then run again";
  }
  figure("killed_" + GetParam().name, calls);
}

/// What is wrong with the answer after a run in which calls have failed; empty if nothing is.
std::string answerFaults(const Command& command, const TracedRun& run, size_t openBefore) {
  const Outcome& outcome = run.outcome;
  const bool outOfMemory = outcome.err.ends_with("[morvane_cli] out of memory\n");
  const std::string said = outcome.out + outcome.err;
  if (outcome.status != 0 && outcome.status != 1) return "ended oddly";
  if (outcome.status == 0 && outcome.out != command.okLine) return "success without its line";
  if (outcome.status == 1 && said.find("_OK") != std::string::npos) return "failure called success";
  if (outcome.status == 1 && !outOfMemory && said.find(command.failLine) == std::string::npos) {
    return "failure without its line";
  }
  // A run that fails ends with its store and staging folder open.
  if (!outOfMemory && run.openAtEnd > openBefore + 2) return "descriptors left open";
  return "";
}

/// The files that are neither as they were nor as they are to be.
std::string tornFiles(const Fault& fault, const Tree& before, const Tree& now, const Tree& after) {
  // Where no removal works any more, what could not be finished cannot be taken away either.
  const bool removable = fault.error != EIO && fault.error != EACCES && fault.error != ENOMEM;
  if (fault.kind == Fault::Kind::failFromThere && !removable) return "";
  std::string torn;
  for (const auto& entry : now) {
    const std::string& words = entry.second;
    const auto isIn = [&](const Tree& tree) {
      const auto found = tree.find(entry.first);
      return found != tree.end() && *found == entry;
    };
    const bool file = words.starts_with("file") || words.starts_with("link");
    if (file && !isIn(before) && !isIn(after)) torn += entry.first + " is " + words;
  }
  return torn;
}

/// What is wrong with the backup in particular.
std::string backupFaults(const TracedRun& run, const Fault& fault, const Tree& before,
                         const Tree& now, const Tree& after) {
  const std::string path = std::string(kStore) + "/one.morvane";
  const std::string fromOlder = differences(below(before, path), below(now, path));
  const std::string fromNew = differences(below(after, path), below(now, path));
  // Where nothing works any more from the exchange on, the new one cannot be taken back either.
  const bool stuck = fault.kind == Fault::Kind::failFromThere && fromNew.empty();
  if (run.outcome.status != 0) return stuck ? "" : fromOlder;
  if (fault.error == ENOSPC || fault.error == EDQUOT) return "published though the store was full";
  const std::string& err = run.outcome.err;
  const size_t told = err.find("copy incomplete for " + std::string(kApp) + ": ");
  if (told == std::string::npos) return fromNew.empty() ? "" : "not told of: " + fromNew;
  const bool one = fault.kind == Fault::Kind::failFromThere || err.compare(told + 41, 2, "1 ") == 0;
  return one ? "" : "one failure costs more than one entry";
}

TEST_P(Sweep, EveryErrorAtEveryCall) {
  size_t runs = 0;
  size_t failures = 0;
  for (size_t at = firstOwnCall(undisturbed_); at <= undisturbed_.calls.size(); ++at) {
    for (const int error : possibleErrors(undisturbed_.calls[at - 1])) {
      for (const auto kind : {Fault::Kind::failOnce, Fault::Kind::failFromThere}) {
        putWorld();
        const Fault fault{kind, at, error};
        const TracedRun run = runTraced(GetParam().arguments, fault);
        const Tree now = world();
        std::string faults = answerFaults(GetParam(), run, undisturbed_.openAtEnd) +
                             trespasses(GetParam(), before_, now) +
                             tornFiles(fault, before_, now, after_);
        if (GetParam().name == "backup") faults += backupFaults(run, fault, before_, now, after_);
        EXPECT_EQ(faults, "") << "call " << at << " (" << undisturbed_.calls[at - 1].number
                              << ") fails " << (kind == Fault::Kind::failOnce ? "once" : "and on")
                              << " with " << std::strerror(error) << "\n"
                              << run.outcome;
        failures += faults.empty() ? 0U : 1U;
        ASSERT_LT(failures, 10U);
        ++runs;
      }
    }
  }
  figure("failed_" + GetParam().name, runs);
}

class TwoAtOnce : public Case {};

TEST_F(TwoAtOnce, OneBackupOfTheNameIsWhole) {
  const Command& backup = commands().front();
  putWorld();
  const size_t calls = runTraced(backup.arguments).calls.size();
  const Tree after = world();
  for (size_t at = 1; at <= calls; ++at) {
    putWorld();
    TracedRun second;
    const TracedRun first = runTraced(backup.arguments, {}, [&](size_t count, const SystemCall&) {
      if (count == at) second = runTraced(backup.arguments);
    });
    ASSERT_EQ(second.outcome.out, backup.okLine) << second.outcome;
    ASSERT_EQ(first.outcome.out, backup.okLine) << first.outcome;
    ASSERT_EQ(differences(after, world()), "") << "a second run at call " << at;
    for (const std::string& name : namesIn(kStore))
      ASSERT_FALSE(name.starts_with(".staging")) << name;
  }
  figure("second_runs", calls);
}

INSTANTIATE_TEST_SUITE_P(All, Sweep, ::testing::ValuesIn(commands()),
                         [](const auto& command) { return command.param.name; });

}  // namespace
}  // namespace morvane::test
