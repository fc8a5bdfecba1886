// Trees that no program is prepared for: too deep, too wide, full of what cannot go or must not be
// touched.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <map>

#include "backup/tree_copy.h"
#include "reset/wipe.h"
#include "support/case.h"
#include "support/command.h"
#include "support/stops.h"
#include "support/tree.h"

namespace morvane::test {
namespace fs = std::filesystem;
namespace {

using Names = std::vector<std::string>;

class TreesBeyondLimits : public Case {
 protected:
  void SetUp() override {
    Case::SetUp();
    mountMemory("/var", "2g");
  }

  /// A run of the tool with 64 descriptors and a stack of 256 KiB.
  static void expectOk(const std::vector<std::string>& arguments) {
    const Outcome outcome = cli(arguments, {.inChild =
                                                [] {
                                                  const rlimit descriptors{64, 64};
                                                  const rlimit stack{256 * 1024, 256 * 1024};
                                                  ::setrlimit(RLIMIT_NOFILE, &descriptors);
                                                  ::setrlimit(RLIMIT_STACK, &stack);
                                                },
                                            .timeoutSeconds = 100});
    EXPECT_EQ(outcome.status, 0) << outcome;
    EXPECT_EQ(outcome.err.find("incomplete"), std::string::npos) << outcome;
  }
};

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

TEST_F(TreesBeyondLimits, TwentyThousandLevelsComeBack) {
  const std::string app = putApp("app", "com.a");
  putChain(app + "/Documents/chain", 20000);
  const Names before = levelsOf(app + "/Documents/chain");
  ASSERT_EQ(before.size(), 20002U);
  for (const char* keywords : {"", "no such name"}) {
    expectOk({"backup", "com.a", "deep", keywords});
    EXPECT_EQ(levelsOf("/var/mobile/MorvaneBackups/deep.morvane/com.a/Documents/chain"), before);
  }
  expectOk({"reset", "com.a", "clear"});
  EXPECT_EQ(namesIn(app), (Names{kMetadataName, "Documents", "Library", "SystemData", "tmp"}));
  expectOk({"restore", "deep.morvane"});
  EXPECT_EQ(levelsOf(app + "/Documents/chain"), before);
  expectOk({"removebackup", "ALL"});
  EXPECT_EQ(namesIn("/var/mobile/MorvaneBackups"), Names{});
}

TEST_F(TreesBeyondLimits, AHundredThousandEntriesInOneFolderComeBack) {
  const std::string app = putApp("app", "com.a");
  const std::string many = app + "/Documents/many";
  putFolder(many);
  for (int i = 0; i < 50000; ++i) {
    const std::string name = many + "/" + std::to_string(i);
    ASSERT_EQ(::mkdir((name + ".d").c_str(), 0700), 0);
    ::close(::open(name.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
  }
  const Tree before = treeAt(many);
  ASSERT_EQ(before.size(), 100001U);
  expectOk({"backup", "com.a", "wide"});
  expectOk({"restore", "wide.morvane"});
  EXPECT_EQ(differences(before, treeAt(many)), "");
  expectOk({"reset", "com.a", "clear"});
  EXPECT_FALSE(exists(many));
}

bool makeImmutable(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  int flags = 0x10;  // FS_IMMUTABLE_FL
  const bool made = ::ioctl(fd, _IOW('f', 2, long), &flags) == 0;
  ::close(fd);
  return made;
}

/// Each level has files, a subfolder and, as far as `stuck` goes, a file that cannot be removed.
void putStuckTree(const std::string& root, int depth, int stuck) {
  std::string path = root;
  for (int i = 0; i < depth; ++i, path += "/d") {
    for (int file = 0; file < 20; ++file)
      put(path + "/file" + std::to_string(file));
    put(path + "/z/goes");
    for (int file = 0; i < stuck && file < 20; ++file) {
      put(path + "/stuck" + std::to_string(file));
      ASSERT_TRUE(makeImmutable(path + "/stuck" + std::to_string(file)));
    }
  }
}

TEST_F(TreesBeyondLimits, WhatCannotGoCostsItselfAndItsParents) {
  put("/var/probe");
  if (!makeImmutable("/var/probe")) SKIP_OR_FAIL("files cannot be made immutable here");
  // As on a file system whose listings come a few names at a time: what cannot go fills the first.
  for (const std::uint64_t listed : {32768UL, 200UL}) {
    const std::string root = "/var/listed " + std::to_string(listed);
    putStuckTree(root, 30, 3);
    putStuckTree(root + "/deep", 30, 0);
    put(root + std::string("/deep") + std::string("/d/d/d/d/d/d/d/d/d/stuck"));
    ASSERT_TRUE(makeImmutable(root + "/deep/d/d/d/d/d/d/d/d/d/stuck"));
    std::map<std::string, int> opened;
    StoppedRuns runs([&] { wipeDirContents(root); });
    EXPECT_EQ(0, runs.run([&](const Stop& stop) {
      if (stop.call == SYS_getdents64 && stopsCanChangeCalls()) stop.set(2, listed);
      if (stop.call == SYS_openat) ++opened[stop.path];
    }));
    for (const std::string& name : namesIn(root)) {
      const bool parent = fs::is_directory(root + "/" + name);
      EXPECT_TRUE(parent || name.find("stuck") != std::string::npos) << name;
    }
    EXPECT_TRUE(exists(root + "/d/d/stuck0") && !exists(root + "/d/d/d"));
    EXPECT_FALSE(exists(root + "/deep/d/d/d/d/d/d/d/d/d/d"));
    for (const auto& [path, times] : opened)
      EXPECT_LE(times, 3) << path << ": a folder is not gone through once for each one above it";
  }
}

TEST_F(TreesBeyondLimits, NothingThatCouldBlockIsOpened) {
  put("/var/outside/precious");
  putHostileTree("/var/in", "/var/outside", 20);
  if (::getuid() == 0) (void)::mknod("/var/in/device", S_IFCHR | 0666, (1 << 8) | 7);
  const auto body = [] {
    CopyTally tally;
    copyTreeReplacing({AT_FDCWD, "/var/in"}, {AT_FDCWD, "/var/full"}, tally);
    copyTreeFiltered({AT_FDCWD, "/var/in"}, {AT_FDCWD, "/var/filtered"}, {"no such"}, tally);
    wipeDirContents("/var/in");
    ::_exit(tally.failed);
  };
  size_t opened = 0;
  EXPECT_EQ(0, StoppedRuns(body).run([&](const Stop& stop) {
    if (stop.call != SYS_openat && stop.call != SYS_openat2) return;
    ++opened;
    const auto type = fs::symlink_status(stop.path).type();
    EXPECT_TRUE(type == fs::file_type::directory || type == fs::file_type::regular ||
                type == fs::file_type::symlink || type == fs::file_type::not_found)
        << stop.path;
  }));
  EXPECT_GT(opened, 100U);
  EXPECT_EQ(namesIn("/var/in"), Names{});
  EXPECT_TRUE(exists("/var/outside/precious"));
}

}  // namespace
}  // namespace morvane::test
