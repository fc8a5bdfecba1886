// What a user would lose: everything that a privileged deletion can be led to.

#include "reset/wipe.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include "support/case.h"
#include "support/command.h"
#include "support/tree.h"

namespace morvane::test {
namespace {

using Names = std::vector<std::string>;

class WipesStayWhereTheyShould : public Case {};

TEST_F(WipesStayWhereTheyShould, AFolderIsEmptiedAndKept) {
  mountMemory("/var/folder");
  put("/var/outside/precious", "photos");
  putHostileTree("/var/folder", "/var/outside", 3000);
  const unsigned mode = modeOf("/var/folder");
  wipeDirContents("/var/folder");
  EXPECT_EQ(namesIn("/var/folder"), Names{});
  EXPECT_EQ(modeOf("/var/folder"), mode);
  EXPECT_EQ(contentOf("/var/outside/precious"), "photos");

  put("/var/file", "stays");
  wipeDirContents("/var/file");
  wipeDirContents("/var/missing");
  wipeDirContents("/var/missing/deeper");
  wipeDirContents("");
  EXPECT_EQ(contentOf("/var/file"), "stays");
  EXPECT_FALSE(exists("/var/missing"));
}

TEST_F(WipesStayWhereTheyShould, LinksAtThePathItselfAreFollowedWhenTheSystemMadeThem) {
  put("/var/target/inside");
  putLink("/var/link", "target");
  wipeDirContents("/var/link");
  EXPECT_EQ(namesIn("/var/target"), Names{});
  EXPECT_TRUE(exists("/var/link"));
  putLink("/var/dangling", "/var/nowhere");
  putLink("/var/circle", "circle");
  wipeDirContents("/var/dangling");
  EXPECT_FALSE(removeIfExists("/var/dangling"));
  EXPECT_FALSE(removeIfExists("/var/circle"));
  EXPECT_TRUE(exists("/var/dangling"));
  EXPECT_TRUE(removeIfExists("/var/link"));  // the link goes, not what it leads to
  EXPECT_FALSE(exists("/var/link"));
  EXPECT_TRUE(exists("/var/target"));

  if (!ownershipIsFree()) SKIP_OR_FAIL("only root can plant another user's link");
  put("/var/target/inside");
  const std::string app = putApp("app", "com.a") + "/";
  for (const char* name : {"Documents", "Library", "tmp", "SystemData"}) {
    runCommand({"rm", "-rf", app + name});
    putLink(app + name, "/var/target");
    ASSERT_EQ(::lchown((app + name).c_str(), 501, 501), 0);
  }
  cli({"reset", "com.a", "clear"});
  EXPECT_EQ(namesIn("/var/target"), Names{"inside"}) << "an app aimed a wipe";
}

TEST_F(WipesStayWhereTheyShould, RemoveIfExistsSaysWhatWasThere) {
  put("/var/file");
  put("/var/folder/deep/file");
  ASSERT_EQ(::mkfifo("/var/fifo", 0600), 0);
  for (const char* path : {"/var/file", "/var/folder", "/var/fifo"}) {
    EXPECT_TRUE(removeIfExists(path)) << path;
    EXPECT_FALSE(exists(path)) << path;
    EXPECT_FALSE(removeIfExists(path)) << path;
  }
  EXPECT_FALSE(removeIfExists("/var/no/such/file"));
  EXPECT_FALSE(removeIfExists("/var/" + std::string(300, 'n')));
}

TEST_F(WipesStayWhereTheyShould, WhatCannotGoCostsOnlyItself) {
  put("/var/folder/a/stuck", "kept");
  put("/var/folder/a/goes");
  put("/var/folder/b/goes");
  put("/var/folder/goes");
  if (std::system("chattr +i /var/folder/a/stuck 2>/dev/null") != 0) {
    SKIP_OR_FAIL("this file system or user cannot make a file immutable");
  }
  wipeDirContents("/var/folder");
  EXPECT_EQ(namesIn("/var/folder"), (Names{"a", "a/stuck"}));
  EXPECT_TRUE(removeIfExists("/var/folder/a/stuck")) << "it was there, whatever became of it";
  EXPECT_TRUE(exists("/var/folder/a/stuck"));
  ASSERT_EQ(std::system("chattr -i /var/folder/a/stuck"), 0);
  EXPECT_TRUE(removeIfExists("/var/folder"));
  EXPECT_FALSE(exists("/var/folder"));
}

TEST_F(WipesStayWhereTheyShould, WithFewDescriptorsAndALittleStack) {
  mountMemory("/var/mobile");
  const std::string app = putApp("app", "com.a");
  putChain(app + "/Documents", 20000);
  for (int i = 0; i < 5000; ++i)
    put(app + "/Library/many/" + std::to_string(i), "");
  for (int i = 0; i < 300; ++i)
    putFolder(app + "/tmp/many/" + std::to_string(i) + "/x");
  const Outcome outcome = cli({"reset", "com.a", "clear"}, {.inChild = [] {
                                const rlimit descriptors{64, 64};
                                const rlimit stack{256 * 1024, 256 * 1024};
                                ::setrlimit(RLIMIT_NOFILE, &descriptors);
                                ::setrlimit(RLIMIT_STACK, &stack);
                              }});
  EXPECT_EQ(outcome.out, "RESET_OK com.a\n");
  EXPECT_EQ(namesIn(app), (Names{kMetadataName, "Documents", "Library", "SystemData", "tmp"}));
}

TEST_F(WipesStayWhereTheyShould, ReceiptsGoFromTheContainer) {
  put("/var/c/StoreKit/receipt");
  put("/var/c/StoreKit/other");
  put("/var/iTunesMetadata.plist");  // beside a data container it is nobody's
  EXPECT_TRUE(wipeReceiptBestEffort("com.a", "/var/c"));
  EXPECT_FALSE(wipeReceiptBestEffort("com.a", "/var/c"));
  EXPECT_FALSE(wipeReceiptBestEffort("com.a", std::nullopt));
  EXPECT_EQ(namesIn("/var/c"), (Names{"StoreKit", "StoreKit/other"}));
  EXPECT_TRUE(exists("/var/iTunesMetadata.plist"));
  putApp("app", "com.a");
  const Outcome outcome = cli({"reset", "com.a", "clear", "appdata=0,sys=0,receipt=1"});
  EXPECT_NE(outcome.err.find("[morvane_cli] receipt wipe com.a: nothing found\n"),
            std::string::npos);
}

}  // namespace
}  // namespace morvane::test
