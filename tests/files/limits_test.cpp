// Trees that no program is prepared for: too deep, too wide, full of what cannot go.

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

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

using Names = std::vector<std::string>;

class TreesBeyondLimits : public Case {};

/// With 64 descriptors and a stack of 256 KiB.
void expectOk(const std::vector<std::string>& arguments) {
  const RunOptions narrow{.inChild = [] {
    const rlimit descriptors{64, 64};
    const rlimit stack{1 << 18, 1 << 18};
    ::setrlimit(RLIMIT_NOFILE, &descriptors);
    ::setrlimit(RLIMIT_STACK, &stack);
  }};
  const Outcome outcome = cli(arguments, narrow);
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
    const std::string list =
        "cd $0; find Documents Library -printf '%d %f %y %m %T@ %s\\n' | sort -T /var";
    return runCommand({"sh", "-c", list, path}).out;
  };
  const std::string before = look(app);
  ASSERT_GT(std::count(before.begin(), before.end(), '\n'), 120000);
  for (const char* keywords : {"", "no such name"}) {
    expectOk({"backup", "com.a", "all", keywords});
    EXPECT_TRUE(look("/var/mobile/MorvaneBackups/all.morvane/com.a") == before);
  }
  expectOk({"reset", "com.a", "clear"});
  EXPECT_EQ(namesIn(app), (Names{kMetadataName, "Documents", "Library", "SystemData", "tmp"}));
  expectOk({"restore", "all.morvane"});
  EXPECT_TRUE(look(app) == before);
  expectOk({"removebackup", "ALL"});
  EXPECT_EQ(namesIn("/var/mobile/MorvaneBackups"), Names{});
}

/// Each level has files, a subfolder and, as far as `stuck` goes, files that cannot be removed.
void putStuckTree(const std::string& root, int depth, int stuck) {
  std::string path = root;
  for (int level = 0; level < depth; ++level, path += "/d") {
    put(path + "/z/goes");
    for (int i = 0; i < 20; ++i) {
      put(path + "/file" + std::to_string(i));
      if (level < stuck) put(path + "/stuck" + std::to_string(i));
    }
  }
}

TEST_F(TreesBeyondLimits, WhatCannotGoCostsItselfAndItsParents) {
  mountMemory("/var");
  // As on a file system whose listings come a few names at a time: what cannot go fills the first.
  for (const unsigned long listed : {32768UL, 200UL}) {
    const std::string root = "/var/listed " + std::to_string(listed);
    putStuckTree(root, 30, 3);
    putStuckTree(root + "/deep", 30, 0);
    put(root + "/deep/d/d/d/d/d/d/d/d/d/stuck");
    const std::string immutable = "find \"$0\" -name 'stuck*' -exec chattr +i {} +";
    if (runCommand({"sh", "-c", immutable, root}).status != 0) {
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
    EXPECT_EQ(namesIn(root), Names(stuck.begin(), stuck.end()));
    EXPECT_LT(opened, 400U) << "folders are gone through once for each one above them";
  }
}

}  // namespace
}  // namespace morvane::test
