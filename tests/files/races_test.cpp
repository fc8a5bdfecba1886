// What an app can do that keeps changing its folders while we work in them as root. Every moment at
// which a name is used is tried, the process being held there; nothing is left to luck.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>

#include "backup/tree_copy.h"
#include "reset/wipe.h"
#include "support/case.h"
#include "support/trace.h"
#include "support/tree.h"

namespace morvane::test {
namespace fs = std::filesystem;
namespace {

/// The app's tree, and another with the same names, which links can be aimed at and folders moved
/// into, so that whoever is led astray finds the names he looks for.
const std::string kTree = "/var/in";
const std::string kOutside = "/var/outside";
const std::string kCopy = "/var/to";

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
  for (const auto& entry : fs::directory_iterator("/var"))
    fs::remove_all(entry);
  putTree(kTree, "inside", kApp);
  putTree("/var/backup", "inside", kApp);
  putTree(kOutside, "OUTSIDE", 0);
}

/// What must stay as it is, without what the attacks themselves have put there.
Tree outside() {
  Tree tree = treeAt(kOutside);
  std::erase_if(tree, [](const auto& entry) {
    return entry.first == "." || entry.first.starts_with("moved");
  });
  return tree;
}

/// What the app does to an entry, or to the folder that holds it.
enum class Attack { vanishes, byLink, byHardLink, byFolder, byFifo, folderByLink, folderMoved };

void carryOut(Attack attack, const std::string& path) {
  const std::string folder = fs::path(path).parent_path();
  const std::string target = kOutside + path.substr(kTree.size());
  if (attack == Attack::folderByLink) return carryOut(Attack::byLink, folder);
  if (attack == Attack::folderMoved) {
    if (folder != kTree) ::rename(folder.c_str(), (kOutside + "/moved").c_str());
    return;
  }
  ::rename(path.c_str(), "/var/aside");
  if (attack == Attack::byHardLink) return (void)!::link(target.c_str(), path.c_str());
  if (attack == Attack::byLink) putLink(path, target);
  if (attack == Attack::byFolder) put(path + "/planted", "inside");
  if (attack == Attack::byFifo) ::mkfifo(path.c_str(), 0600);
  (void)!::lchown(path.c_str(), kApp, kApp);
}

/// What the app disturbs. A copy from its tree ends, as the tool does, by telling of what is
/// missing.
void doWork(const std::string& work) {
  const Place tree{AT_FDCWD, kTree};
  const Place copy{AT_FDCWD, kCopy};
  CopyTally tally;
  if (work == "wipe" || work == "restore") wipeDirContents(kTree);
  if (work == "removal") {
    for (const char* name : {"/m", "/f"})
      (void)removeIfExists(kTree + name);
  }
  if (work == "copy") copyTreeReplacing(tree, copy, tally);
  if (work == "filteredCopy") copyTreeFiltered(tree, copy, {"no such name"}, tally);
  if (tally.failed > 0) ::_exit(kToldOfFailures);
  if (work == "restore") copyTreeReplacing({AT_FDCWD, "/var/backup"}, tree, tally);
}

/// What is wrong in the trees after that.
std::string harmDone(const std::string& work, const Tree& before) {
  std::string harm = differences(before, outside());
  for (const auto& [path, words] : treeAt(kCopy)) {
    const bool isOther = words.starts_with("file") && !words.ends_with(" inside");
    if (isOther) harm += "read into " + path + ": " + words + "\n";
  }
  for (const std::string& name : namesIn(kTree)) {
    const bool mustGo = work == "wipe" || (work == "removal" && (name == "m" || name == "f"));
    if (mustGo) harm += "left " + name + "\n";
    const std::string folder = kTree + "/" + name;
    if (exists(folder + "/planted") && namesIn(folder).size() > 1) harm += "given to " + name;
  }
  return harm;
}

class WhileFoldersChange : public RootCase {};
class WhileAnAppSwapsItsFiles : public WhileFoldersChange,
                                public ::testing::WithParamInterface<const char*> {};

TEST_P(WhileAnAppSwapsItsFiles, NothingOutsideIsTouched) {
  const std::string work = GetParam();
  for (const Attack attack :
       {Attack::vanishes, Attack::byLink, Attack::byHardLink, Attack::byFolder, Attack::byFifo,
        Attack::folderByLink, Attack::folderMoved}) {
    // To a reader, another name of a file is the file.
    if (attack == Attack::byHardLink && (work == "copy" || work == "filteredCopy")) continue;
    size_t moments = 0;
    for (size_t strike = 0; strike <= moments; ++strike) {
      rebuild();
      const Tree before = outside();
      moments = 0;
      const auto disturb = [&](const Call& call) {
        const std::string path = call.path();
        if (!path.starts_with(kTree + "/") || path.ends_with("/..")) return;  // no name to swap
        if (moments++ == strike) carryOut(attack, path);
      };
      const int status = runInChild([&] { doWork(work); }, disturb);
      // Something else under the name is a failure to tell of; that it has vanished is none.
      const bool tells = status == kToldOfFailures && attack != Attack::vanishes;
      EXPECT_TRUE(status == 0 || tells) << "ended with " << status;
      EXPECT_EQ(harmDone(work, before), "") << static_cast<int>(attack) << " at " << strike;
    }
    EXPECT_GT(moments, 5U);
  }
}

INSTANTIATE_TEST_SUITE_P(All, WhileAnAppSwapsItsFiles,
                         ::testing::Values("wipe", "removal", "copy", "filteredCopy", "restore"),
                         [](const auto& work) { return std::string(work.param); });

std::string level(int depth, const std::string& root) {
  std::string path = root;
  for (int i = 0; i < depth; ++i)
    path += "/d";
  return path;
}

/// Does `work` in a chain deeper than is held open, and once it lists the deepest folder moves away
/// the levels given below `root`.
void workAndMove(const std::string& work, const std::string& root, const std::vector<int>& levels) {
  constexpr int kDepth = 40;
  rebuild();
  for (int i = 0; i < kDepth; ++i) {
    for (const char* name : {"/d/f", "/z/f"})
      put(level(i, kTree) + name, "inside " + std::to_string(i));
    setOldTime(level(i, kTree), 1000000000 + i, i);
  }
  const Tree before = outside();
  bool moved = false;
  const auto move = [&](const Call& call) {
    if (moved || call.number != SYS_getdents64 || call.path() != level(kDepth, kTree)) return;
    moved = true;
    for (const int depth : levels) {
      const std::string to = kOutside + "/moved" + std::to_string(depth);
      ASSERT_EQ(::rename(level(depth, root).c_str(), to.c_str()), 0);
      setOldTime(level(depth - 1, root), 1000000000 + depth - 1, depth - 1);
    }
  };
  const int status = runInChild([&] { doWork(work); }, move);
  EXPECT_TRUE(moved);
  // Behind one that was moved its parent is found again by the names; not what was below another.
  const bool lost = root == kCopy && levels.size() > 1;
  EXPECT_EQ(status, lost ? kToldOfFailures : 0);
  EXPECT_EQ(differences(before, outside()), "");
}

TEST_F(WhileFoldersChange, WorkGoesOnWhereItStillCan) {
  for (const std::vector<int>& levels : {std::vector{23}, {10}, {10, 5}, {12, 10, 1}}) {
    SCOPED_TRACE(levels.back());
    workAndMove("wipe", kTree, levels);
    EXPECT_EQ(namesIn(kTree).size(), 0U);
    for (const auto& [root, other] : {std::pair{kTree, kCopy}, {kCopy, kTree}}) {
      workAndMove("copy", root, levels);
      // What the walk can still reach when it is back is whole, with its times.
      Tree whole = treeAt(other);
      for (const auto& [path, words] : treeAt(root))
        EXPECT_EQ(whole[path], words) << path;
      const int last = levels.back() - 1;
      EXPECT_EQ(contentOf(level(last, kCopy) + "/z/f"), "inside " + std::to_string(last));
    }
  }
}

}  // namespace
}  // namespace morvane::test
