// Many runs: two at a time, and thousands in a row.

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <random>

#include "reliability/faulty_run.h"
#include "reliability/world.h"
#include "support/case.h"

namespace morvane::test {
namespace {

using Words = std::vector<std::string>;

/// Blocks and inodes in use in the file system at /var.
std::string inUse() {
  return runCommand({"df", "--output=used,iused", "/var"}).out;
}

/// The folders that a backup keeps, in the app's container or in a backup.
Tree keptFolders(const std::string& place) {
  Tree data = below(world(), place);
  std::erase_if(data, [](const auto& entry) {
    return !entry.first.starts_with("/Documents") && !entry.first.starts_with("/Library");
  });
  return data;
}

Tree backupData(const std::string& name) {
  return keptFolders(kStore + "/" + name + "/" + kApp);
}

/// One phone, commands in random order, one in four of them killed at a random system call and run
/// again. MORVANE_SOAK_COMMANDS says how many.
class Soak : public Case {
 protected:
  size_t upTo(size_t bound) { return random_() % bound; }
  bool oneIn(size_t bound) { return upTo(bound) == 0; }

  /// The app goes on living between the commands.
  void useApp() {
    const std::string path = kContainer + "/Documents/d" + std::to_string(upTo(4));
    if (oneIn(3)) std::filesystem::remove_all(path);
    if (oneIn(2)) put(path + "/f" + std::to_string(upTo(5)), std::string(upTo(300), 'x'));
    if (oneIn(3)) put(kContainer + "/Library/cache.db", std::to_string(random_()));
    for (const auto& [name, words] : treeAt(kContainer))
      setOldTime(kContainer + "/" + name);
    app_ = keptFolders(kContainer);
  }

  Words randomCommand() {
    const std::string name(1, static_cast<char>('a' + upTo(4)));
    const size_t choice = upTo(40);
    if (choice == 0) return {"removebackup", "ALL"};
    if (choice < 5) return {"removebackup", name + ".morvane"};
    if (choice < 9) return {"reset", kApp, oneIn(2) ? "kill" : "clear"};
    if (choice < 21) return {"restore", name + ".morvane"};
    return {"backup", kApp, name};
  }

  /// What the command, done, makes of the phone.
  void expectOf(const Words& words) {
    if (words[0] == "backup") store_[words[2] + ".morvane"] = app_;
    if (words[0] == "restore" && !store_[words[1]].empty()) app_ = store_[words[1]];
    for (auto& [name, backup] : store_) {
      const bool named = words[1] == "ALL" || words[1] == name;
      if (words[0] == "removebackup" && named) backup.clear();
    }
    if (words[0] == "reset")
      std::erase_if(app_, [](const auto& entry) {
        return entry.first != "/Documents" && entry.first != "/Library";
      });
  }

  std::mt19937_64 random_{1};
  Tree app_;                           // as it must be
  std::map<std::string, Tree> store_;  // likewise, by name
};

TEST_F(Soak, StoreAndContainersStayConsistent) {
  putWorld();
  const auto empty = [] {
    for (const Words& words : {Words{"removebackup", "ALL"}, {"reset", kApp, "kill"}})
      EXPECT_EQ(runFaulty(words).outcome.status, 0);
  };
  const char* wanted = std::getenv("MORVANE_SOAK_COMMANDS");
  const size_t commands = wanted != nullptr ? std::strtoul(wanted, nullptr, 10) : 400;
  size_t killed = 0;
  useApp();
  empty();
  const std::string atFirst = inUse();
  for (size_t i = 1; i <= commands && !HasFailure(); ++i) {
    useApp();
    const Words words = randomCommand();
    SCOPED_TRACE("command " + std::to_string(i) + ": " + words[0] + " " + words[1]);
    std::map<std::string, Tree> older = store_;
    expectOf(words);
    if (oneIn(4)) {
      const FaultyRun run = runFaulty(words, {Fault::Kind::end, 1 + upTo(size_t{2} << upTo(9))});
      killed += run.outcome.status == 128 + SIGKILL ? 1U : 0U;
      // Each backup is the older or the newer one; what is being removed can be half there.
      for (const auto& [name, newer] : store_) {
        const Tree now = backupData(name);
        const bool removed = words[0] == "removebackup" && older[name] != newer;
        EXPECT_TRUE(now == older[name] || now == newer || removed) << "killed: " << name;
      }
    }
    const Outcome outcome = runFaulty(words).outcome;
    EXPECT_EQ(differences(app_, keptFolders(kContainer)), "") << outcome;
    for (const auto& [name, backup] : store_)
      EXPECT_EQ(differences(backup, backupData(name)), "") << outcome;
  }
  empty();
  EXPECT_EQ(inUse(), atFirst) << "inodes and blocks in use have grown";
  EXPECT_GT(killed, commands / 20);
  figure("soak_commands", commands);
  figure("soak_killed", killed);
}

class TwoAtOnce : public Case {};

TEST_F(TwoAtOnce, TheLastToFinishIsWhole) {
  const std::vector<std::string> backup{"backup", kApp, "one"};
  const std::vector<std::string> smaller{"backup", kApp, "one", "big"};
  size_t seconds = 0;
  for (const char* older : {"one.morvane", "none.morvane"}) {
    const auto begin = [&] {
      putWorld();
      std::filesystem::rename(kBackup, kStore + "/" + older);
    };
    begin();
    EXPECT_EQ(runFaulty(smaller).outcome.status, 0);
    const Tree afterSecond = world();
    begin();
    const size_t calls = runFaulty(backup).calls.size();
    const Tree after = world();
    for (size_t at = 1; at <= calls; ++at, ++seconds) {
      SCOPED_TRACE("a second run at call " + std::to_string(at));
      begin();
      Outcome second;
      const FaultyRun first = runFaulty(backup, {}, [&](const Call& call) {
        if (call.count == at) second = runFaulty(smaller).outcome;
      });
      ASSERT_EQ(second.out, "BACKUP_OK one.morvane\n") << second;
      ASSERT_EQ(first.outcome.out, "BACKUP_OK one.morvane\n") << first.outcome;
      const Tree now = world();
      ASSERT_TRUE(now == after || now == afterSecond) << differences(after, now);
      for (const std::string& name : namesIn(kStore))
        ASSERT_FALSE(name.starts_with(".staging")) << name;
    }
  }
  figure("second_runs", seconds);
}

}  // namespace
}  // namespace morvane::test
