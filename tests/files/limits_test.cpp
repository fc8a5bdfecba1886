// Trees that no program is prepared for: too deep, too wide, full of what cannot go.

#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <algorithm>
#include <filesystem>
#include <set>

#include "reset/wipe.h"
#include "support/case.h"
#include "support/command.h"
#include "support/tree.h"

namespace morvane::test {
namespace fs = std::filesystem;
namespace {

using Words = std::vector<std::string>;

class TreesBeyondLimits : public Case {};

/// With 64 descriptors and a stack of 256 KiB.
void expectOk(const std::string& command) {
  const Outcome outcome = shell("ulimit -n 64 -s 256; exec \"$0\" " + command);
  EXPECT_EQ(outcome.status, 0) << outcome;
  EXPECT_EQ(outcome.err.find("incomplete"), std::string::npos) << outcome;
}

TEST_F(TreesBeyondLimits, TwentyThousandLevelsAndAHundredThousandEntriesComeBack) {
  mountMemory("/var", "2g");
  const std::string app = putApp("app", "com.a");
  putChain(app + "/Documents/chain", 20000);
  for (int i = 0; i < 50000; ++i) {
    put(app + "/Library/many/" + std::to_string(i), "");
    putFolder(app + "/Library/many/d" + std::to_string(i));
  }
  const auto look = [](const std::string& path) {
    const std::string list = "find Documents Library -printf '%d %f %y %m %T@ %s\\n'";
    return shell("cd " + path + "; " + list + " | sort -T /var").out;
  };
  const std::string before = look(app);
  ASSERT_GT(std::count(before.begin(), before.end(), '\n'), 120000);
  for (const std::string keywords : {"", " no-such-name"}) {
    expectOk("backup com.a all" + keywords);
    EXPECT_TRUE(look("/var/mobile/MorvaneBackups/all.morvane/com.a") == before);
  }
  expectOk("reset com.a clear");
  EXPECT_EQ(namesIn(app), (Words{kMetadataName, "Documents", "Library", "SystemData", "tmp"}));
  expectOk("restore all.morvane");
  EXPECT_TRUE(look(app) == before);
  expectOk("removebackup ALL");
  EXPECT_EQ(namesIn("/var/mobile/MorvaneBackups"), Words{});
}

/// In the current folder. The first three levels have files that cannot be removed, and so has one
/// below others.
const char* const kMakeStuckTree = R"(
  for level in {1..30}; do
    mkdir d z
    touch z/goes file{1..20}
    if [ $level -le 3 ]; then touch stuck{1..20}; fi
    if [ $level = 12 ]; then touch stuck; fi
    cd d
  done
  find /var -name 'stuck*' -exec chattr +i {} +)";

TEST_F(TreesBeyondLimits, WhatCannotGoCostsItselfAndItsParents) {
  mountMemory("/var");
  // As on a file system whose listings come a few names at a time: what cannot go fills the first.
  for (const unsigned long listed : {32768UL, 200UL}) {
    const std::string root = "/var/listed" + std::to_string(listed);
    putFolder(root);
    if (shell("cd " + root + kMakeStuckTree).status != 0) {
      SKIP_OR_FAIL("files cannot be made immutable here");
    }
    std::set<std::string> stuck;
    for (std::string name : namesIn(root)) {
      if (name.find("stuck") == std::string::npos) continue;
      for (; !name.empty(); name = fs::path(name).parent_path())
        stuck.insert(name);
    }
    size_t opened = 0;
    const auto atCall = [&](const Call& call) {
      if (call.number == SYS_getdents64) call.set(2, listed);
      if (call.opens()) ++opened;
    };
    EXPECT_EQ(runInChild([&] { wipeDirContents(root); }, atCall), 0);
    EXPECT_EQ(namesIn(root), Words(stuck.begin(), stuck.end()));
    EXPECT_LT(opened, 400U) << "folders are gone through once for each one above them";
  }
}

}  // namespace
}  // namespace morvane::test
