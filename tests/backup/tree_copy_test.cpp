// What a user would lose: files that a copy leaves out, breaks or follows to somewhere else.

#include "backup/tree_copy.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include "support/case.h"
#include "support/command.h"
#include "support/tree.h"

namespace morvane::test {
namespace {

class Copies : public Case {
 protected:
  static Place at(const std::string& path) { return {AT_FDCWD, path}; }
};

TEST_F(Copies, ReplaceExactlyOneLevel) {
  put("/var/from/b/new", "new");
  put("/var/from/c", "new");
  put("/var/to/a", "stays");
  put("/var/to/b/old", "goes");
  putLink("/var/to/c", "a");
  CopyTally tally;
  copyTreeReplacing(at("/var/from"), at("/var/to"), tally);
  EXPECT_EQ(namesIn("/var/to"), (std::vector<std::string>{"a", "b", "b/new", "c"}));
  EXPECT_EQ(contentOf("/var/to/a"), "stays") << "a link was written through";
  EXPECT_EQ(contentOf("/var/to/c"), "new");

  copyTreeReplacing(at("/var/from"), at("/var/far/away/to"), tally);
  EXPECT_EQ(differences(treeAt("/var/from"), treeAt("/var/far/away/to")), "");
  EXPECT_EQ(tally.failed, 0);
}

TEST_F(Copies, OfWhatIsNoFolderMakeNothing) {
  put("/var/file");
  putLink("/var/dangling", "/nowhere");
  CopyTally tally;
  for (const char* source : {"/var/file", "/var/dangling", "/var/missing"}) {
    copyTreeFiltered(at(source), at("/var/out/a"), {"x"}, tally);
    copyTreeReplacing(at(source), at("/var/out/b"), tally);
  }
  EXPECT_FALSE(exists("/var/out"));
  EXPECT_EQ(tally.leftOut + tally.failed, 0);
  // Whereas a folder of which everything is left out is made.
  put("/var/from/x/y");
  copyTreeFiltered(at("/var/from"), at("/var/deep/out"), {"X"}, tally);
  EXPECT_EQ(namesIn("/var/deep/out"), std::vector<std::string>{});
  copyTreeFiltered(at("/var/from"), at("/var/deep/again"), {"x"}, tally);
  EXPECT_EQ(tally.leftOut, 2) << "one tally goes over several copies";
}

TEST_F(Copies, UnderAFilterTurnLinksToFoldersIntoEmptyFolders) {
  put("/var/outside/precious", "photos");
  put("/var/from/folder/inside");
  putLink("/var/from/toFolder", "folder");
  putLink("/var/from/outOfIt", "/var/outside");
  putLink("/var/from/toFile", "folder/inside");
  putLink("/var/from/dangling", "/nowhere");
  putLink("/var/from/circle", "circle");
  CopyTally tally;
  copyTreeFiltered(at("/var/from"), at("/var/to"), {"nothing of it"}, tally);
  const Tree from = treeAt("/var/from");
  Tree to = treeAt("/var/to");
  for (const char* name : {"toFolder", "outOfIt"}) {
    EXPECT_TRUE(to.at(name).starts_with("folder")) << to.at(name);
    to[name] = from.at(name);
  }
  EXPECT_EQ(differences(from, to), "");
}

TEST_F(Copies, AreWholeAndLeaveTheSourceAlone) {
  mountMemory("/var/from");
  mountMemory("/var/full");
  putHostileTree("/var/from", "/var/outside", 3000);
  for (int i = 0; i < 3000; ++i)
    put("/var/from/many/" + std::to_string(i), std::to_string(i));
  const Tree before = treeAt("/var/from");
  CopyTally tally;
  copyTreeReplacing(at("/var/from"), at("/var/full/copy"), tally);
  EXPECT_EQ(differences(before, treeAt("/var/full/copy")), "");
  EXPECT_EQ(differences(before, treeAt("/var/from"), Specials::keep), "");
  EXPECT_EQ(tally.failed, 0);
  EXPECT_EQ(tally.fatalError, 0);
  EXPECT_EQ(tally.leftOut, 0);
}

}  // namespace
}  // namespace morvane::test
