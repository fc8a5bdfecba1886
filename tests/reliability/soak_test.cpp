// One phone, thousands of commands in random order, one in four of them to be killed at a random
// system call. MORVANE_SOAK_COMMANDS and MORVANE_SOAK_SEED choose another run.

#include <gtest/gtest.h>
#include <sys/statvfs.h>

#include <cstdlib>
#include <filesystem>
#include <random>

#include "reliability/world.h"
#include "support/case.h"

namespace morvane::test {
namespace {

size_t fromEnvironment(const char* name, size_t otherwise) {
  const char* value = std::getenv(name);
  return value != nullptr ? std::strtoul(value, nullptr, 10) : otherwise;
}

const std::string kContainer = "/var/mobile/Containers/Data/Application/A";

/// What a folder holds, in words that do not depend on where it is.
Tree contents(const Tree& phone, const std::string& path) {
  Tree result;
  for (const auto& [name, words] : below(phone, path)) {
    const bool timeless = words.starts_with("folder");
    if (name != path) {
      result[name.substr(path.size())] = timeless ? words.substr(0, words.rfind(' ')) : words;
    }
  }
  return result;
}

/// The folders of the container that a backup keeps.
Tree kept(const Tree& phone) {
  Tree result;
  for (const auto& [name, words] : contents(phone, kContainer)) {
    if (name.starts_with("/Documents") || name.starts_with("/Library")) result[name] = words;
  }
  return result;
}

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
  }

  std::vector<std::string> randomCommand() {
    const std::string name(1, static_cast<char>('a' + upTo(4)));
    const size_t choice = upTo(40);
    if (choice == 0) return {"removebackup", "ALL"};
    if (choice < 5) return {"removebackup", name + ".morvane"};
    if (choice < 9) return {"reset", kApp, oneIn(2) ? "kill" : "clear"};
    if (choice < 21) return {"restore", name + ".morvane"};
    return {"backup", kApp, name};
  }

  /// Checks what a command, killed or not, has made of the phone, and what it has left alone.
  void check(const std::vector<std::string>& words, const TracedRun& run, const Tree& before) {
    const Tree now = world();
    const bool killed = run.outcome.status == 128 + SIGKILL;
    const bool all = words[1] == "ALL";
    const std::string target = words[0] == "backup" ? words[2] + ".morvane" : words[1];
    for (const char* letter : {"a", "b", "c", "d", "other"}) {
      const std::string name = std::string(letter) + ".morvane";
      const Tree backup = contents(now, kStore + ("/" + name));
      const Tree older = contents(before, kStore + ("/" + name));
      const bool named = all || (target == name && words[0] != "restore");
      const std::string where = kStore + ("/" + name + "/" + kApp);
      if (!named) {
        ASSERT_EQ(differences(older, backup), "") << name << " is not the one meant";
      } else if (words[0] == "removebackup") {
        ASSERT_TRUE(killed || backup.empty());
      } else if (!killed || backup != older) {
        ASSERT_EQ(differences(kept(now), contents(now, where)), "") << name;
      }
    }
    if (words[0] == "restore" && run.outcome.status == 0) {
      const std::string where = kStore + ("/" + words[1] + "/" + kApp);
      for (const char* folder : {"/Documents", "/Library"}) {
        // A backup whose removal was killed may have lost one of them, which then stays as it is.
        if (!now.contains(where + folder)) continue;
        ASSERT_EQ(differences(contents(now, where + folder), contents(now, kContainer + folder)),
                  "");
      }
    }
    const size_t left = words[0] == "reset" && !killed ? kept(now).size() : 2;
    ASSERT_EQ(left, 2U) << "a reset leaves two empty folders";
    const std::string other = "/var/mobile/Containers/Data/Application/B";
    ASSERT_EQ(below(before, other), below(now, other));
    ASSERT_TRUE(now.contains(kContainer + "/" + kMetadataName));
  }

  std::mt19937_64 random_{fromEnvironment("MORVANE_SOAK_SEED", 1)};
};

/// Inodes and blocks in use in the file system at /var.
std::pair<size_t, size_t> inUse() {
  struct statvfs status {};
  EXPECT_EQ(::statvfs("/var", &status), 0);
  return {status.f_files - status.f_ffree, status.f_blocks - status.f_bfree};
}

TEST_F(Soak, StoreAndContainersStayConsistent) {
  putWorld();
  const auto empty = [] {
    for (const auto& words :
         {std::vector<std::string>{"removebackup", "ALL"}, {"reset", kApp, "kill"}})
      EXPECT_EQ(runTraced(words).outcome.status, 0);
  };
  const size_t commands = fromEnvironment("MORVANE_SOAK_COMMANDS", 400);
  size_t killed = 0;
  useApp();
  empty();
  const auto atFirst = inUse();
  for (size_t i = 1; i <= commands; ++i) {
    useApp();
    const std::vector<std::string> words = randomCommand();
    const Tree before = world();
    const bool kill = oneIn(4);
    const Fault fault{kill ? Fault::Kind::kill : Fault::Kind::none, 1 + upTo(250), 0};
    const TracedRun run = runTraced(words, fault);
    ASSERT_NO_FATAL_FAILURE(check(words, run, before))
        << "command " << i << ": " << words[0] << " " << words[1] << "\n"
        << run.outcome;
    killed += run.outcome.status == 128 + SIGKILL ? 1U : 0U;
  }
  empty();
  EXPECT_EQ(inUse(), atFirst) << "inodes and blocks in use have grown";
  figure("soak_commands", commands);
  figure("soak_killed", killed);
}

}  // namespace
}  // namespace morvane::test
