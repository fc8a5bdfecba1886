// Each command, ended at every point and failing at every call that can fail. Of this file there
// are two programs, one for each way of faulty_run.h.

#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <cerrno>
#include <cstring>
#include <map>

#include "reliability/faulty_run.h"
#include "reliability/world.h"
#include "support/case.h"

namespace morvane::test {
namespace {

using Kind = Fault::Kind;

const std::map<std::string, std::vector<std::string>> kCommands = {
    {"backup", {"backup", kApp, "one"}},
    {"restore", {"restore", "one.morvane"}},
    {"remove", {"removebackup", "one.morvane"}},
    {"removeAll", {"removebackup", "ALL"}},
    {"reset", {"reset", kApp, "kill", "receipt=1"}},
};

class Sweep : public Case, public ::testing::WithParamInterface<const char*> {
 protected:
  void SetUp() override {
    Case::SetUp();
    putWorld();
    before_ = world();
    undisturbed_ = runFaulty(command_);
    after_ = world();
    ASSERT_EQ(undisturbed_.outcome.status, 0) << undisturbed_.outcome;
    ASSERT_EQ(trespasses(), "");
  }

  [[nodiscard]] std::string trespasses() const;
  enum class Torn { no, allowed };
  [[nodiscard]] std::string strays(const Tree& left, Torn torn) const;
  [[nodiscard]] std::string answerFaults(const FaultyRun& run, const Fault& fault) const;
  [[nodiscard]] std::string backupFaults(const FaultyRun& run, const Fault& fault,
                                         const Tree& now) const;

  const std::string name_ = GetParam();
  const std::vector<std::string>& command_ = kCommands.at(name_);
  Tree before_;
  Tree after_;
  FaultyRun undisturbed_;
};

/// What the undisturbed run had no business to change.
std::string Sweep::trespasses() const {
  const std::string ours = name_ == "restore"     ? kContainer
                           : name_ == "removeAll" ? kStore
                                                  : kBackup;
  Tree before = below(before_, name_ == "reset" ? kStore : "");
  Tree after = below(after_, name_ == "reset" ? kStore : "");
  for (Tree* tree : {&before, &after})
    std::erase_if(*tree, [&](const auto& entry) { return entry.first.starts_with(ours); });
  return differences(before, after) +
         differences(below(before_, kOtherContainer), below(after_, kOtherContainer));
}

/// What is neither as it was nor as it is to be, where files may be `torn` only where that differs.
std::string Sweep::strays(const Tree& left, Torn torn) const {
  Tree before = below(before_, "");
  Tree after = below(after_, "");
  Tree now = below(left, "");
  for (const Tree& known : {before, after}) {
    for (const auto& [path, words] : known)
      now.try_emplace(path, "gone");
  }
  std::string report;
  for (const auto& [path, words] : now) {
    const bool file = words.starts_with("file") || words.starts_with("link");
    const bool judged = before[path] == after[path] || (file && torn == Torn::no);
    if (judged && words != before[path] && words != after[path])
      report += path + " is " + words + "\n";
  }
  return report;
}

TEST_P(Sweep, EndedAnywhere) {
  size_t at = 1;
  for (int status = 128 + SIGKILL; status != 0; ++at) {
    SCOPED_TRACE("ended at " + std::to_string(at));
    putWorld();
    status = runFaulty(command_, {Kind::end, at}).outcome.status;
    ASSERT_TRUE(status == 128 + SIGKILL || status == 0) << status;
    const Tree left = world();
    ASSERT_EQ(strays(left, Torn::allowed), "");
    const Tree backup = below(left, kBackup);
    ASSERT_TRUE(name_ != "backup" || backup == below(before_, kBackup) ||
                backup == below(after_, kBackup));
    const Outcome again = runFaulty(command_).outcome;
    const bool wasDone = again.err == "REMOVE_FAIL: not found\n";
    ASSERT_TRUE(again.out == undisturbed_.outcome.out || wasDone) << again;
    ASSERT_EQ(differences(after_, world()), "") << "then run again";
  }
  EXPECT_GT(at, 20U);
  figure(kEnded + name_, at - 2);
}

/// What is wrong with the answer after a run in which calls have failed; empty if nothing is.
std::string Sweep::answerFaults(const FaultyRun& run, const Fault& fault) const {
  const Outcome& outcome = run.outcome;
  const bool outOfMemory = outcome.err.ends_with("[morvane_cli] out of memory\n");
  const std::string said = outcome.out + outcome.err;
  if (outcome.status != 0 && outcome.status != 1) return "ended oddly";
  if (outcome.status == 0 && outcome.out != undisturbed_.outcome.out)
    return "success without its line";
  if (outcome.status == 1 && said.find("_OK") != said.npos) return "failure called success";
  const std::string& good = undisturbed_.outcome.out;
  const std::string bad = "\n" + good.substr(0, good.find('_')) + "_FAIL";
  if (outcome.status == 1 && !outOfMemory && ("\n" + said).find(bad) == said.npos)
    return "failure without its line";
  // What fails ends where it is, with the store and the folder in hand still open.
  const size_t allowed = outcome.status == 1 ? 2 : 0;
  const bool leaks = !outOfMemory && run.openAtEnd > undisturbed_.openAtEnd + allowed;
  if (leaks) return "descriptors left open";
  const bool unsynced = undisturbed_.calls[fault.at - 1].number == SYS_syncfs &&
                        fault.error == EIO && name_ == "restore";
  const bool told = outcome.err.find("container not synced: ") != said.npos;
  return unsynced && !told ? "a failed sync not told of" : "";
}

/// What is wrong with the backup in particular.
std::string Sweep::backupFaults(const FaultyRun& run, const Fault& fault, const Tree& now) const {
  const Tree backup = below(now, kBackup);
  const std::string fromNew = differences(below(after_, kBackup), backup);
  // Where nothing works any more from the exchange on, the new one cannot be taken back either.
  const bool onAndOn = fault.kind == Kind::failFromThere;
  if (run.outcome.status != 0)
    return onAndOn && fromNew.empty() ? "" : differences(below(before_, kBackup), backup);
  // That there is no room for an attribute says nothing of the room in the store, setxattr(2).
  const bool attribute = undisturbed_.calls[fault.at - 1].number == SYS_fsetxattr && !onAndOn;
  const bool full = (fault.error == ENOSPC || fault.error == EDQUOT) && !attribute;
  if (full) return "published though the store was full";
  const std::string told = "copy incomplete for " + kApp + ": ";
  const size_t at = run.outcome.err.find(told);
  if (at == std::string::npos) return fromNew.empty() ? "" : "not told of: " + fromNew;
  const bool one = run.outcome.err.substr(at + told.size()).starts_with("1 ");
  return onAndOn || one ? "" : "one failure costs more than one entry";
}

TEST_P(Sweep, EveryErrorAtEveryCall) {
  size_t runs = 0;
  for (size_t at = undisturbed_.ownCalls + 1; at <= undisturbed_.calls.size(); ++at) {
    const Call& call = undisturbed_.calls[at - 1];
    for (const int error : possibleErrors(call)) {
      for (const Kind kind : {Kind::failOnce, Kind::failFromThere}) {
        putWorld();
        const Fault fault{kind, at, error};
        const FaultyRun run = runFaulty(command_, fault);
        const Tree now = world();
        // Where no removal works any more, what could not be finished cannot be taken away either.
        const bool removable = error == ENOSPC || error == EDQUOT || error == EMFILE;
        const Torn torn = kind == Kind::failOnce || removable ? Torn::no : Torn::allowed;
        std::string faults = answerFaults(run, fault) + strays(now, torn);
        if (name_ == "backup") faults += backupFaults(run, fault, now);
        ASSERT_EQ(faults, "") << "call " << at << " (" << call.number << ") fails "
                              << (kind == Kind::failOnce ? "once" : "and on") << " with "
                              << std::strerror(error) << "\n"
                              << run.outcome;
        ++runs;
      }
    }
  }
  EXPECT_GT(runs, 50U);
  figure(kFailed + name_, runs);
}

INSTANTIATE_TEST_SUITE_P(All, Sweep,
                         ::testing::Values("reset", "backup", "restore", "remove", "removeAll"),
                         [](const auto& command) { return command.param; });

}  // namespace
}  // namespace morvane::test
