// What an app can do that keeps changing its folders while we work in them as root. Every moment at
// which a name is used is tried, the process being held there; nothing is left to luck.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <sstream>

#include "backup/tree_copy.h"
#include "files/open.h"
#include "files/remove_tree.h"
#include "reset/wipe.h"
#include "support/case.h"
#include "support/stops.h"
#include "support/tree.h"

namespace morvane::test {
namespace fs = std::filesystem;
namespace {

/// The app's tree, and two others beside it with the same names: one that links can be aimed at and
/// one that folders can be moved into, so that whoever is led astray finds the names he looks for.
const std::string kTree = "/var/in";
const std::string kOutside = "/var/outside";
const std::string kElsewhere = "/var/elsewhere";

void putTree(const std::string& root, const std::string& content) {
  for (const char* file : {"/f", "/a/g", "/a/b/h", "/c/i"})
    put(root + file, content);
  putLink(root + "/a/l", "g");
  putLink(root + "/m", "f");
  if (root == kTree) (void)::mkfifo((root + "/a/fifo").c_str(), 0600);
  for (const char* name : {"", "/a", "/a/b", "/c", "/f", "/a/g", "/a/b/h", "/m"}) {
    ASSERT_EQ(::lchown((root + name).c_str(), 501, 501), 0);
    setOldTime(root + name);
  }
}

void rebuild() {
  for (const char* name : {"in", "outside", "elsewhere", "to", "backup", "aside"})
    fs::remove_all(std::string("/var/") + name);
  putTree(kTree, "inside");
  putTree("/var/backup", "inside");
  putTree(kOutside, "OUTSIDE");
  putTree(kElsewhere, "OUTSIDE");
  putFolder("/var/aside");
}

/// What must stay as it is, without what the attacks themselves have put there.
Tree outside() {
  Tree tree;
  for (const std::string& root : {kOutside, kElsewhere}) {
    for (const auto& [path, words] : treeAt(root)) {
      if (path != "." && !path.starts_with("moved")) tree[root + "/" + path] = words;
    }
  }
  return tree;
}

std::string mirrored(const std::string& path) {
  return kOutside + path.substr(kTree.size());
}

bool below(const std::string& path) {
  return path.size() > kTree.size() && path.starts_with(kTree + "/");
}

/// What the app does to a path. The links it makes are its own.
using Attack = void (*)(const std::string& path);

void linkTo(const std::string& target, const std::string& path) {
  ASSERT_EQ(::symlink(target.c_str(), path.c_str()), 0) << path;
  ASSERT_EQ(::lchown(path.c_str(), 501, 501), 0);
}
void moveAside(const std::string& path) {
  static int count = 0;
  ::rename(path.c_str(), ("/var/aside/" + std::to_string(count++)).c_str());
}
void entryByLink(const std::string& path) {
  moveAside(path);
  linkTo(mirrored(path), path);
}
void folderByLink(const std::string& path) {
  entryByLink(fs::path(path).parent_path());
}
void entryByOtherKind(const std::string& path) {
  const bool folder = fs::is_directory(fs::symlink_status(path));
  moveAside(path);
  folder ? put(path) : put(path + "/sub/x");
}
void entryByFifo(const std::string& path) {
  moveAside(path);
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
}
void entryByHardLink(const std::string& path) {
  moveAside(path);
  std::error_code none;
  fs::create_hard_link(mirrored(path), path, none);
}
void folderMovedElsewhere(const std::string& path) {
  const std::string folder = fs::path(path).parent_path();
  if (below(folder)) ::rename(folder.c_str(), (kElsewhere + "/moved").c_str());
}

/// What is wrong after `body` ran with `attack` at one of its moments, for all of them.
std::string harmOf(const std::function<void()>& body, Attack attack) {
  std::ostringstream harm;
  StoppedRuns runs(body);
  size_t strikes = 0;
  bool struck = true;
  for (size_t point = 0; struck && !::testing::Test::HasFatalFailure(); ++point) {
    rebuild();
    const Tree before = outside();
    struck = false;
    std::string where;
    const int status = runs.run([&](const Stop& stop) {
      if (stop.index != point) return;
      struck = true;
      if (!below(stop.path)) return;
      where = std::to_string(point) + " (call " + std::to_string(stop.call) + " " + stop.path + ")";
      attack(stop.path);
      ++strikes;
    });
    if (status != 0) harm << where << ": ended with " << status << "\n";
    std::string changed = differences(before, outside());
    if (!changed.empty()) harm << where << ": " << changed;
    for (const auto& [path, words] : treeAt("/var/to")) {
      if (words.find("OUTSIDE") != std::string::npos)
        harm << where << ": read into " << path << "\n";
    }
  }
  EXPECT_GT(strikes, 15U);
  return harm.str();
}

Place at(const std::string& path) {
  return {AT_FDCWD, path};
}
void wipe() {
  for (const char* name : {"/a/b", "/f", "/c"})
    (void)removeIfExists(kTree + name);
  wipeDirContents(kTree);
}
void fullCopy() {
  CopyTally tally;
  copyTreeReplacing(at(kTree), at("/var/to"), tally);
}
void filteredCopy() {
  CopyTally tally;
  copyTreeFiltered(at(kTree), at("/var/to"), {"no such name"}, tally);
}
void restore() {
  CopyTally tally;
  wipeDirContents(kTree);
  copyTreeReplacing(at("/var/backup"), at(kTree), tally);
}

class WhileAnAppSwapsItsFiles : public Case {
 protected:
  void SetUp() override {
    Case::SetUp();
    mountMemory("/var", "1g");
    if (!ownershipIsFree()) SKIP_OR_FAIL("only root can act for another user");
  }
  static void expectHarmless(const std::function<void()>& body) {
    for (Attack attack :
         {entryByLink, folderByLink, entryByOtherKind, entryByFifo, folderMovedElsewhere}) {
      EXPECT_EQ(harmOf(body, attack), "");
    }
  }
};

TEST_F(WhileAnAppSwapsItsFiles, AWipeDeletesNothingOutside) {
  expectHarmless(wipe);
  EXPECT_EQ(harmOf(wipe, entryByHardLink), "");
}
TEST_F(WhileAnAppSwapsItsFiles, ACopyReadsNothingOutside) {
  expectHarmless(fullCopy);
}
TEST_F(WhileAnAppSwapsItsFiles, AFilteredCopyReadsNothingOutside) {
  expectHarmless(filteredCopy);
}
TEST_F(WhileAnAppSwapsItsFiles, ARestoreChangesNothingOutside) {
  expectHarmless(restore);
  EXPECT_EQ(harmOf(restore, entryByHardLink), "") << "an owner or a time given to the wrong file";
}

TEST_F(WhileAnAppSwapsItsFiles, WhatWorksOnPathsIsLedAstray) {
  // The same attacks on the obvious way to do it; if they did no harm, they would show nothing.
  const std::function<void(const fs::path&)> wipeByPath = [&](const fs::path& path) {
    for (const auto& entry : fs::directory_iterator(path)) {
      if (entry.symlink_status().type() == fs::file_type::directory) wipeByPath(entry.path());
      ::remove(entry.path().c_str());
    }
  };
  const auto copyByPath = [] {
    std::error_code none;
    fs::copy(kTree, "/var/to", fs::copy_options::recursive | fs::copy_options::copy_symlinks, none);
  };
  EXPECT_NE(harmOf([&] { wipeByPath(kTree); }, entryByLink), "");
  EXPECT_NE(harmOf([&] { wipeByPath(kTree); }, folderByLink), "");
  fs::remove(kTree + "/a/fifo");
  EXPECT_NE(harmOf(copyByPath, entryByLink), "");
}

TEST_F(WhileAnAppSwapsItsFiles, WhateverTheKindAFileOrFolderGoes) {
  for (const char* name : {"/f", "/a"}) {
    for (const std::uint64_t call : {SYS_newfstatat + 0UL, SYS_openat + 0UL, SYS_unlinkat + 0UL}) {
      rebuild();
      bool done = false;
      StoppedRuns([&] { (void)removeIfExists(kTree + name); }).run([&](const Stop& stop) {
        if (done || stop.call != call || stop.path != kTree + name) return;
        done = true;
        entryByOtherKind(stop.path);
      });
      EXPECT_FALSE(exists(kTree + name)) << name << " at call " << call;
    }
  }
}

TEST_F(WhileAnAppSwapsItsFiles, AFolderPutInTheWayOfARestoreGetsNothing) {
  rebuild();
  bool made = false;
  bool planted = false;
  StoppedRuns(restore).run([&](const Stop& stop) {
    if (stop.path != kTree + "/a") return;
    if (stop.call == SYS_openat && made && !planted) {
      moveAside(stop.path);
      put(stop.path + "/planted");
      ASSERT_EQ(::lchown(stop.path.c_str(), 501, 501), 0);
      planted = true;
    }
    made = made || stop.call == SYS_mkdirat;
  });
  EXPECT_TRUE(planted);
  EXPECT_EQ(namesIn(kTree + "/a"), std::vector<std::string>{"planted"});
}

/// A chain of folders, deeper than are held open, each with a file in it and after it.
class WhileFoldersAreMovedAway : public WhileAnAppSwapsItsFiles {
 protected:
  static constexpr int kDepth = 40;

  static std::string level(const std::string& root, int depth) {
    std::string path = root;
    for (int i = 0; i < depth; ++i)
      path += "/d";
    return path;
  }

  /// Runs `body`, and once it lists the deepest folder moves away the levels given below `root`.
  static void runAndMove(const std::function<void()>& body, const std::string& root,
                         const std::vector<int>& levels) {
    rebuild();
    for (int i = 0; i < kDepth; ++i) {
      for (const char* name : {"/d/f", "/z/f"})
        put(level(kTree, i) + name, "inside " + std::to_string(i));
      setOldTime(level(kTree, i), 1000000000 + i, i);
    }
    const Tree before = outside();
    bool moved = false;
    EXPECT_EQ(0, StoppedRuns(body).run([&](const Stop& stop) {
      if (moved || stop.call != SYS_getdents64 || stop.path != level(kTree, kDepth)) return;
      moved = true;
      for (const int depth : levels) {
        const std::string to = kElsewhere + "/moved" + std::to_string(depth);
        ASSERT_EQ(::rename(level(root, depth).c_str(), to.c_str()), 0);
        setOldTime(level(root, depth - 1), 1000000000 + depth - 1, depth - 1);
      }
    }));
    EXPECT_TRUE(moved);
    EXPECT_EQ(differences(before, outside()), "");
  }
};

TEST_F(WhileFoldersAreMovedAway, AWipeGoesOnWhereItStillCan) {
  const std::vector<std::vector<int>> rows = {{40}, {39}, {30}, {23}, {10}, {10, 5}, {12, 10, 1}};
  for (const std::vector<int>& levels : rows) {
    runAndMove(wipe, kTree, levels);
    EXPECT_EQ(namesIn(kTree), std::vector<std::string>{}) << levels.front();
  }
}

TEST_F(WhileFoldersAreMovedAway, ACopyKeepsWhatStayed) {
  for (const std::vector<int>& levels : {std::vector{30}, {10}, {10, 5}, {12, 10, 1}}) {
    const int lost = levels.back();
    runAndMove(fullCopy, kTree, levels);
    // What the walk can still reach when it is back is whole, with its times.
    const Tree left = treeAt(kTree);
    Tree copied = treeAt("/var/to");
    for (const auto& [path, words] : left) {
      if (words.starts_with("special")) continue;
      EXPECT_EQ(copied[path], words) << path;
    }
    EXPECT_EQ(copied.count("d/f"), 1U) << lost;
  }
}

TEST_F(WhileFoldersAreMovedAway, ACopyWhoseOwnFoldersGoSaysWhatIsMissing) {
  const auto body = [] {
    CopyTally counted;
    copyTreeReplacing(at(kTree), at("/var/to"), counted);
    ::_exit(counted.failed > 0 && counted.fatalError == 0 ? 0 : 1);
  };
  for (const std::vector<int>& levels : {std::vector{12, 8}, {20, 3}}) {
    runAndMove(body, "/var/to", levels);
    const Tree from = treeAt(kTree);
    for (const auto& [path, words] : treeAt("/var/to"))
      EXPECT_EQ(words, from.at(path)) << path;
    const int last = levels.back() - 1;
    EXPECT_EQ(contentOf(level("/var/to", last) + "/z/f"), "inside " + std::to_string(last));
  }
}

}  // namespace
}  // namespace morvane::test
