// Trees that no program is prepared for: too deep, too wide, full of what cannot go.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <set>

#include "reset/wipe.h"
#include "support/case.h"
#include "support/command.h"
#include "support/tree.h"

namespace morvane::test {
namespace {

using Names = std::vector<std::string>;

class TreesBeyondLimits : public Case {
 protected:
  void SetUp() override {
    Case::SetUp();
    mountMemory("/var", "2g");
  }
};

void expectOk(const std::vector<std::string>& arguments) {
  const RunOptions narrow{.inChild = [] {
    const rlimit descriptors{64, 64};
    const rlimit stack{256 * 1024, 256 * 1024};
    ::setrlimit(RLIMIT_NOFILE, &descriptors);
    ::setrlimit(RLIMIT_STACK, &stack);
  }};
  const Outcome outcome = cli(arguments, narrow);
  EXPECT_EQ(outcome.status, 0) << outcome;
  EXPECT_EQ(outcome.err.find("incomplete"), std::string::npos) << outcome;
}

/// Modes and times of the levels of a chain, and what its deepest folder holds.
Names levelsOf(const std::string& path) {
  Names levels;
  const int before = ::open(".", O_PATH | O_CLOEXEC);
  struct stat status {};
  for (const char* next = path.c_str(); ::chdir(next) == 0 && ::stat(".", &status) == 0; next = "d")
    levels.push_back(std::to_string(status.st_mode) + " " + std::to_string(status.st_mtim.tv_nsec));
  levels.push_back(contentOf("bottom"));
  EXPECT_EQ(::fchdir(before), 0);
  ::close(before);
  return levels;
}

TEST_F(TreesBeyondLimits, TwentyThousandLevelsAndAHundredThousandEntriesComeBack) {
  const std::string app = putApp("app", "com.a");
  putChain(app + "/Documents/chain", 20000);
  for (int i = 0; i < 50000; ++i) {
    put(app + "/Library/many/" + std::to_string(i), "");
    ASSERT_EQ(::mkdir((app + "/Library/many/d" + std::to_string(i)).c_str(), 0700), 0);
  }
  const Names levels = levelsOf(app + "/Documents/chain");
  const Tree many = treeAt(app + "/Library/many");
  ASSERT_EQ(levels.size(), 20002U);
  ASSERT_EQ(many.size(), 100001U);
  const auto expectAllIn = [&](const std::string& path) {
    EXPECT_EQ(levelsOf(path + "/Documents/chain"), levels);
    EXPECT_EQ(differences(many, treeAt(path + "/Library/many")), "");
  };
  for (const char* keywords : {"", "no such name"}) {
    expectOk({"backup", "com.a", "all", keywords});
    expectAllIn("/var/mobile/MorvaneBackups/all.morvane/com.a");
  }
  expectOk({"reset", "com.a", "clear"});
  EXPECT_EQ(namesIn(app), (Names{kMetadataName, "Documents", "Library", "SystemData", "tmp"}));
  expectOk({"restore", "all.morvane"});
  expectAllIn(app);
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
      for (; !name.empty(); name = std::filesystem::path(name).parent_path())
        stuck.insert(name);
    }
    std::map<std::string, int> opened;
    EXPECT_EQ(0, runInChild([&] { wipeDirContents(root); },
                            [&](const Call& call) {
                              if (call.number == SYS_getdents64) call.set(2, listed);
                              if (call.opens()) ++opened[call.path()];
                            }));
    EXPECT_EQ(namesIn(root), Names(stuck.begin(), stuck.end()));
    for (const auto& [path, times] : opened)
      EXPECT_LE(times, 3) << path << ": a folder is not gone through once for each one above it";
  }
}

}  // namespace
}  // namespace morvane::test
