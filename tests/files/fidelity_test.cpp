// Whether what comes back is what was there: over random trees, and at each moment of a copy.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "backup/tree_copy.h"
#include "reset/wipe.h"
#include "support/case.h"
#include "support/command.h"
#include "support/tree.h"

namespace morvane::test {
namespace fs = std::filesystem;
namespace {

const std::string kStore = "/var/mobile/MorvaneBackups/";

using Copies = Case;
class CopiesAreFaithful : public RootCase {};

TEST_F(Copies, AreExactThereAndBackOverRandomTrees) {
  mountMemory("/var", "1g");
  put("/var/outside/precious", "photos");
  const Tree outside = treeAt("/var/outside");
  for (unsigned seed = 1; seed <= 8 && !HasFailure(); ++seed) {
    SCOPED_TRACE(seed);
    fs::remove_all("/var/mobile");
    const std::string documents = putApp("app", "com.a") + "/Documents";
    putHostileTree(documents, "/var/outside", seed == 1 ? 300 : 5, seed);
    const Tree before = treeAt(documents);
    EXPECT_EQ(cliLine("backup com.a filtered no-such-name").status, 0);
    Tree filtered = treeAt(kStore + "filtered.morvane/com.a/Documents");
    for (const char* link : {"out", "sub/up"}) {
      EXPECT_TRUE(filtered.at(link).starts_with("folder")) << filtered.at(link);
      filtered[link] = before.at(link);
    }
    EXPECT_EQ(differences(before, filtered), "");
    EXPECT_EQ(cliLine("backup com.a daily").status, 0);
    EXPECT_TRUE(before == treeAt(documents)) << "changed what it copied";
    const Tree backup = treeAt(kStore + "daily.morvane");
    EXPECT_EQ(differences(before, treeAt(kStore + "daily.morvane/com.a/Documents")), "");
    // The folder itself is the app's and stays; the entries below become the backup's.
    put(documents + "/newer", "goes");
    ::chmod(documents.c_str(), 0705);
    cliLine("restore daily.morvane");
    Tree restored = treeAt(documents);
    EXPECT_TRUE(restored["."].starts_with("folder 705 ")) << restored["."];
    restored["."] = before.at(".");
    EXPECT_EQ(differences(before, restored), "");
    // An app that has lost the folder gets it back whole.
    runCommand({"rm", "-rf", documents});
    cliLine("restore daily.morvane");
    EXPECT_EQ(differences(before, treeAt(documents)), "");
    EXPECT_EQ(differences(backup, treeAt(kStore + "daily.morvane")), "") << "changed the backup";
  }
  EXPECT_EQ(differences(outside, treeAt("/var/outside")), "");
}

/// What of `now` somebody can do who may not do it `later`.
mode_t excess(const struct stat& now, const struct stat& later) {
  const bool isGiven = now.st_uid == later.st_uid && now.st_gid == later.st_gid;
  const mode_t all = later.st_mode & later.st_mode >> 3 & later.st_mode >> 6 & 7U;
  return now.st_mode & 06077U & ~(isGiven ? later.st_mode : all << 3 | all);
}

TEST_F(CopiesAreFaithful, AndAtNoMomentOpenToOthersNorOpenWhatCouldBlock) {
  for (unsigned seed = 1; seed <= 3; ++seed)
    putHostileTree("/var/in/" + std::to_string(seed), "/var/outside", 20, seed);
  ASSERT_EQ(::mknod("/var/in/terminal", S_IFCHR | 0666, 5 << 8), 0);
  ASSERT_EQ(::chmod("/var/in", 0700), 0);
  runCommand({"find", "/var/in", "-exec", "touch", "-h", "-d", "2001-01-01", "{}", "+"});
  const auto body = [] {
    CopyTally tally;
    copyTreeReplacing({AT_FDCWD, "/var/in"}, {AT_FDCWD, "/var/to1"}, tally);
    copyTreeFiltered({AT_FDCWD, "/var/in"}, {AT_FDCWD, "/var/to2"}, {"no such"}, tally);
    wipeDirContents("/var/in");
    ::_exit(tally.failed);
  };
  size_t looks = 0;
  const int failed = runInChild(body, [&](const Call& call) {
    const fs::path path = call.path();
    EXPECT_FALSE(call.opens() && fs::is_other(fs::symlink_status(path))) << path;
    for (const std::string copy : {path, path.parent_path()}) {
      if (!copy.starts_with("/var/to")) continue;
      struct stat now {};
      struct stat later {};
      const std::string original = "/var/in" + copy.substr(8);
      if (::lstat(copy.c_str(), &now) != 0 || ::lstat(original.c_str(), &later) != 0) continue;
      EXPECT_EQ(excess(now, later), 0U) << copy << std::oct << " is " << now.st_mode;
      ++looks;
    }
  });
  EXPECT_EQ(failed, 0);
  EXPECT_GT(looks, 2000U);
  const Outcome touched =
      runCommand({"find", "/var/to1", "-mindepth", "1", "-newerat", "2001-01-02"});
  EXPECT_EQ(touched, (Outcome{0, "", ""})) << "not as last accessed";
}

TEST_F(CopiesAreFaithful, LinksAtAPathsEndCountOnlyWhenTheSystemMadeThem) {
  const std::string app = "/var/mobile/Containers/Data/Application/app/";
  const std::string groups = "/var/mobile/Containers/Shared/AppGroup/";
  const std::string meta = std::string("/var/t/") + kMetadataName;
  const char* const reset = "reset com.a clear receipt=1";
  // The witness goes, or comes, when the link is followed.
  const std::tuple<std::string, std::string, const char*, std::string> rows[] = {
      {app + "Documents", "/var/t", reset, "/var/t/w"},
      {app + "StoreKit", "/var/t", reset, "/var/t/receipt"},
      {app + kMetadataName, "/var/t/of the app", reset, app + "tmp/kept-by-tmp"},
      {groups + "g", "/var/t", reset, "/var/t/w"},
      {groups + "real/" + kMetadataName, meta, reset, groups + "real/w"},
      {app + "Documents", "/var/t", "backup com.a b", kStore + "b.morvane/com.a/Documents/w"},
      {app + "Documents", "/var/t", "restore old.morvane", "/var/t/w"},
  };
  for (const auto& [link, target, command, witness] : rows) {
    for (const uid_t owner : {0U, 501U}) {
      runCommand({"rm", "-rf", "/var/mobile", "/var/t"});
      putApp("app", "com.a");
      put(kStore + "old.morvane/com.a/Documents/old");
      put(groups + "real/w");
      put("/var/t/w");
      put("/var/t/receipt");
      put("/var/t/of the app", "com.a");
      put(meta, "group.com.a.x");
      fs::remove_all(link);
      putLink(link, target);
      ASSERT_EQ(::lchown(link.c_str(), owner, owner), 0);
      const bool before = exists(witness);
      cliLine(command);
      EXPECT_EQ(exists(witness) != before, owner == 0) << link << " of " << owner;
    }
  }
}

}  // namespace
}  // namespace morvane::test
