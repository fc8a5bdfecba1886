// What an app can do that keeps changing its folders while we work in them as root. Every moment at
// which a name is used is tried, the process being held there; nothing is left to luck.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>

#include "backup/tree_copy.h"
#include "reset/wipe.h"
#include "support/case.h"
#include "support/trace.h"
#include "support/tree.h"

namespace morvane::test {
namespace fs = std::filesystem;
namespace {

/// The app's tree, and two others beside it with the same names: one that links can be aimed at and
/// one that folders can be moved into, so that whoever is led astray finds the names he looks for.
const std::string kTree = "/var/in";
const std::string kOutside = "/var/outside";
const std::string kElsewhere = "/var/elsewhere";

constexpr uid_t kApp = 501;
constexpr int kToldOfFailures = 7;

void putTree(const std::string& root, const std::string& content, uid_t owner) {
  for (const char* file : {"/f", "/a/g", "/a/b/h", "/c/i"})
    put(root + file, content);
  putLink(root + "/a/l", "../c");
  putLink(root + "/m", "f");
  for (const std::string& name : namesIn(root))
    ASSERT_EQ(::lchown((root + "/" + name).c_str(), owner, owner), 0);
}

void rebuild() {
  for (const char* name : {"in", "outside", "elsewhere", "to", "backup", "aside"})
    fs::remove_all(std::string("/var/") + name);
  putTree(kTree, "inside", kApp);
  putTree("/var/backup", "inside", kApp);
  putTree(kOutside, "OUTSIDE", 0);
  putTree(kElsewhere, "OUTSIDE", 0);
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

/// What the app does to a path. What it makes is its own.
using Attack = void (*)(const std::string& path);

void moveAside(const std::string& path) {
  static int count = 0;
  ::rename(path.c_str(), ("/var/aside/" + std::to_string(count++)).c_str());
}
void entryByLink(const std::string& path) {
  moveAside(path);
  putLink(path, mirrored(path));
  ASSERT_EQ(::lchown(path.c_str(), kApp, kApp), 0);
}
void folderByLink(const std::string& path) {
  entryByLink(fs::path(path).parent_path());
}
void entryByFolder(const std::string& path) {
  moveAside(path);
  put(path + "/planted");
  ASSERT_EQ(::lchown(path.c_str(), kApp, kApp), 0);
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
  if (folder != kTree) ::rename(folder.c_str(), (kElsewhere + "/moved").c_str());
}

Place at(const std::string& path) {
  return {AT_FDCWD, path};
}
void wipe() {
  wipeDirContents(kTree);
}
void removal() {
  for (const char* name : {"/m", "/a/b", "/a", "/c", "/f"})
    (void)removeIfExists(kTree + name);
}
void fullCopy() {
  CopyTally tally;
  copyTreeReplacing(at(kTree), at("/var/to"), tally);
  if (tally.failed > 0) ::_exit(kToldOfFailures);
}
void filteredCopy() {
  CopyTally tally;
  copyTreeFiltered(at(kTree), at("/var/to"), {"no such name"}, tally);
  if (tally.failed > 0) ::_exit(kToldOfFailures);
}
void restore() {
  CopyTally tally;
  wipeDirContents(kTree);
  copyTreeReplacing(at("/var/backup"), at(kTree), tally);
}

/// What is wrong in the trees after `body` was disturbed.
std::string harmDone(void (*body)(), const Tree& before) {
  std::string harm = differences(before, outside());
  for (const auto& [path, words] : treeAt("/var/to")) {
    if (words.find("OUTSIDE") != std::string::npos) harm += "read into " + path + "\n";
  }
  for (const std::string& name : namesIn(kTree)) {
    if (body == wipe || body == removal) harm += "left " + name + "\n";
    const std::string folder = kTree + "/" + name;
    if (exists(folder + "/planted") && namesIn(folder).size() > 1) harm += "given to " + name;
  }
  return harm;
}

/// What is wrong after `body` ran with `attack` at one of its moments, for all of them.
std::string harmOf(void (*body)(), Attack attack) {
  std::ostringstream harm;
  bool struck = true;
  size_t strikes = 0;
  while (struck && !::testing::Test::HasFatalFailure()) {
    rebuild();
    const Tree before = outside();
    struck = false;
    size_t moments = 0;
    std::string where;
    const int status = runInChild(body, [&](const Call& call) {
      const std::string path = call.path();
      if (!path.starts_with(kTree + "/") || moments++ != strikes) return;
      where = "call " + std::to_string(call.number) + " " + path;
      attack(path);
      struck = true;
    });
    // Something else under the name is a failure to tell of; that it has vanished is none.
    const bool ended = status == 0 || (status == kToldOfFailures && attack != moveAside);
    if (!ended) harm << where << ": ended with " << status << "\n";
    if (const std::string done = harmDone(body, before); !done.empty())
      harm << where << ": " << done;
    ++strikes;
  }
  EXPECT_GT(strikes, 15U);
  return harm.str();
}

class WhileAnAppSwapsItsFiles : public Case {
 protected:
  void SetUp() override {
    Case::SetUp();
    mountMemory("/var", "1g");
    if (!ownershipIsFree()) SKIP_OR_FAIL("only root can act for another user");
  }
  static void expectHarmless(void (*body)()) {
    for (Attack attack :
         {entryByLink, folderByLink, entryByFolder, entryByFifo, moveAside, folderMovedElsewhere}) {
      EXPECT_EQ(harmOf(body, attack), "");
    }
  }
};

TEST_F(WhileAnAppSwapsItsFiles, AWipeDeletesItAllAndNothingOutside) {
  for (const auto body : {wipe, removal}) {
    expectHarmless(body);
    EXPECT_EQ(harmOf(body, entryByHardLink), "");
  }
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

void wipeByPath(const fs::path& path) {
  std::error_code gone;
  for (const auto& entry : fs::directory_iterator(path, gone)) {
    if (entry.symlink_status(gone).type() == fs::file_type::directory) wipeByPath(entry.path());
    ::remove(entry.path().c_str());
  }
}

TEST_F(WhileAnAppSwapsItsFiles, WhatWorksOnPathsIsLedAstray) {
  // The same attacks on the obvious way to do it; if they did no harm, they would show nothing.
  const auto wipeTree = [] { wipeByPath(kTree); };
  const auto copyTree = [] {
    std::error_code none;
    fs::copy(kTree, "/var/to", fs::copy_options::recursive | fs::copy_options::copy_symlinks, none);
  };
  for (Attack attack : {entryByLink, folderByLink})
    EXPECT_NE(harmOf(wipeTree, attack).find("found gone"), std::string::npos);
  EXPECT_NE(harmOf(copyTree, entryByLink).find("read into"), std::string::npos);
}

std::string level(int depth, const std::string& root) {
  std::string path = root;
  for (int i = 0; i < depth; ++i)
    path += "/d";
  return path;
}

TEST_F(WhileAnAppSwapsItsFiles, WorkGoesOnWhereItStillCanWhenFoldersAreMovedAway) {
  constexpr int kDepth = 40;  // more than are held open
  const struct {
    void (*body)();
    std::string root;         // in which these levels are moved away...
    std::vector<int> levels;  // ...while the deepest of all is worked on
  } rows[] = {
      {wipe, kTree, {40}},
      {wipe, kTree, {39}},
      {wipe, kTree, {30}},
      {wipe, kTree, {23}},
      {wipe, kTree, {10}},
      {wipe, kTree, {10, 5}},
      {wipe, kTree, {12, 10, 1}},
      {fullCopy, kTree, {30}},
      {fullCopy, kTree, {10, 5}},
      {fullCopy, kTree, {12, 10, 1}},
      {fullCopy, "/var/to", {12, 8}},
      {fullCopy, "/var/to", {20, 3}},
  };
  for (const auto& row : rows) {
    rebuild();
    for (int i = 0; i < kDepth; ++i) {
      for (const char* name : {"/d/f", "/z/f"})
        put(level(i, kTree) + name, "inside " + std::to_string(i));
      setOldTime(level(i, kTree), 1000000000 + i, i);
    }
    const Tree before = outside();
    bool moved = false;
    const int status = runInChild(row.body, [&](const Call& call) {
      if (moved || call.number != SYS_getdents64 || call.path() != level(kDepth, kTree)) return;
      moved = true;
      for (const int depth : row.levels) {
        const std::string to = kElsewhere + "/moved" + std::to_string(depth);
        ASSERT_EQ(::rename(level(depth, row.root).c_str(), to.c_str()), 0);
        setOldTime(level(depth - 1, row.root), 1000000000 + depth - 1, depth - 1);
      }
    });
    const std::string what = row.root + " " + std::to_string(row.levels.back());
    EXPECT_EQ(status, row.body == wipe ? 0 : kToldOfFailures) << what;
    EXPECT_EQ(differences(before, outside()), "");
    if (row.body == wipe) {
      EXPECT_EQ(namesIn(kTree).size(), 0U) << what;
      continue;
    }
    // What the walk can still reach when it is back is whole, with its times.
    Tree copied = treeAt(row.root == kTree ? "/var/to" : kTree);
    for (const auto& [path, words] : treeAt(row.root))
      EXPECT_EQ(copied[path], words) << path << ", " << what;
    const int last = row.levels.back() - 1;
    EXPECT_EQ(contentOf(level(last, "/var/to") + "/z/f"), "inside " + std::to_string(last)) << what;
  }
}

}  // namespace
}  // namespace morvane::test
