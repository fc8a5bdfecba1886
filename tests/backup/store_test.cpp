// What a user would lose: the only copy.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "backup/restore.h"
#include "support/case.h"
#include "support/command.h"
#include "support/stops.h"
#include "support/tree.h"

namespace morvane::test {
namespace {

const std::string kStore = "/var/mobile/MorvaneBackups";
const std::string kDaily = kStore + "/daily.morvane";

class BackupsAndRestores : public Case {};

TEST_F(BackupsAndRestores, AreExactCopiesThereAndBack) {
  put("/var/outside/precious", "photos");
  const Tree outside = treeAt("/var/outside");
  const std::string app = putApp("app", "com.a");
  putHostileTree(app + "/Documents", "/var/outside");
  putHostileTree(app + "/Library/inside", "/var/outside", 40);
  const Tree documents = treeAt(app + "/Documents");
  const Tree library = treeAt(app + "/Library");

  EXPECT_EQ(cli({"backup", "com.a", "daily"}).out, "BACKUP_OK daily.morvane\n");
  EXPECT_EQ(differences(documents, treeAt(app + "/Documents"), Specials::keep), "");
  EXPECT_EQ(differences(documents, treeAt(kDaily + "/com.a/Documents")), "");
  EXPECT_EQ(differences(library, treeAt(kDaily + "/com.a/Library")), "");

  const Tree backup = treeAt(kDaily);
  EXPECT_EQ(cli({"reset", "com.a", "clear"}).status, 0);
  put(app + "/Documents/newer", "goes");
  put(app + "/Library/inside/newer", "goes");
  EXPECT_EQ(cli({"restore", "daily.morvane"}).out, "RESTORE_OK daily.morvane\n");
  // The folders themselves were the app's and stay; the entries below are the backup's.
  Tree restored = treeAt(app + "/Documents");
  restored["."] = documents.at(".");
  EXPECT_EQ(differences(documents, restored), "");
  restored = treeAt(app + "/Library");
  restored["."] = library.at(".");
  EXPECT_EQ(differences(library, restored), "");
  EXPECT_EQ(differences(backup, treeAt(kDaily)), "") << "a restore changed the backup";
  EXPECT_EQ(differences(outside, treeAt("/var/outside"), Specials::keep), "");
}

TEST_F(BackupsAndRestores, AFilterThatMatchesNothingCopiesTheSame) {
  const std::string app = putApp("app", "com.a");
  putHostileTree(app + "/Documents", "/var/outside");
  // Without links that resolve to folders, which a filtered copy makes into folders.
  for (const char* link : {"/out", "/sub/up"})
    ::unlink((app + "/Documents" + link).c_str());
  setOldTime(app + "/Documents/sub");
  const Tree documents = treeAt(app + "/Documents");
  const Outcome outcome = cli({"backup", "com.a", "daily", "no such name"});
  EXPECT_EQ(outcome.out, "BACKUP_OK daily.morvane\n");
  EXPECT_NE(outcome.err.find("lightweight backup: skipped 0 file/dir"), std::string::npos);
  EXPECT_EQ(differences(documents, treeAt(kDaily + "/com.a/Documents")), "");
}

TEST_F(BackupsAndRestores, LeaveOutWhatTheKeywordsSay) {
  const std::string library = putApp("app", "com.a") + "/Library";
  for (const char* path : {"Caches/x/y", "data.DB", "cache.dbx/deep/file", "keep/me", "ẢNH/x",
                           "keep/Caches/z", "\xff.db", "\xff other", "a,b", "Caf\u0065\u0301/x"}) {
    put(library + "/" + path);
  }
  ASSERT_EQ(::unlink((library + "/kept-by-Library").c_str()), 0);
  const struct {
    const char* keywords;
    int skipped;  // -1: a full backup
    std::vector<std::string> gone;
  } rows[] = {
      {"", -1, {}},
      {"| |\n*|/|**/", -1, {}},
      {"nothing", 0, {}},
      {"caches", 2, {"Caches", "Caches/x", "Caches/x/y", "keep/Caches", "keep/Caches/z"}},
      {"/Caches/", 2, {"Caches", "Caches/x", "Caches/x/y", "keep/Caches", "keep/Caches/z"}},
      {"keep/caches", 1, {"keep/Caches", "keep/Caches/z"}},
      {"*.db", 3, {"cache.dbx", "cache.dbx/deep", "cache.dbx/deep/file", "data.DB", "\xff.db"}},
      {"a,b", 1, {"a,b"}},
      {"x|ảnh",
       4,
       {"Caches/x", "Caches/x/y", "Caf\u0065\u0301/x", "cache.dbx", "cache.dbx/deep",
        "cache.dbx/deep/file", "ẢNH", "ẢNH/x"}},
      {"a\u0309nh", 1, {"ẢNH", "ẢNH/x"}},
      {"CAFÉ", 1, {"Caf\u0065\u0301", "Caf\u0065\u0301/x"}},
      {"cafe", 0, {}},
      {"\xff", 2, {"\xff other", "\xff.db"}},
      {"data.db|data|DATA.DB", 1, {"data.DB"}},
  };
  const std::vector<std::string> all = namesIn(library);
  for (const auto& row : rows) {
    std::vector<std::string> expected = all;
    for (const std::string& gone : row.gone) {
      ASSERT_EQ(std::erase(expected, gone), 1U) << row.keywords << " lacks " << gone;
    }
    const Outcome outcome = cli({"backup", "com.a", "daily", row.keywords});
    EXPECT_EQ(namesIn(kDaily + "/com.a/Library"), expected) << row.keywords;
    const std::string line = "[morvane_cli] lightweight backup: skipped " +
                             std::to_string(row.skipped) + " file/dir matching keyword filter\n";
    EXPECT_EQ(outcome.err,
              "[morvane_cli] container backed up: com.a\n" + (row.skipped == -1 ? "" : line));
  }
  // Counts add up over folders and apps; a folder of which nothing is left is still there.
  putApp("b", "com.b");
  EXPECT_NE(cli({"backup", "com.b,com.a", "daily", "kept-by|KEEP"}).err.find("skipped 4 file/dir"),
            std::string::npos);
  EXPECT_EQ(namesIn(kDaily + "/com.b"), (std::vector<std::string>{"Documents", "Library"}));
}

TEST_F(BackupsAndRestores, HoldExactlyWhatTheFormatSays) {
  const std::string app = putApp("app", "com.a");
  putApp("b", "com.b");
  runCommand({"rm", "-rf", app + "/Documents"});
  put(app + "/Documents", "a file of that name is no data");
  putFolder("/var/mobile/Containers/Data/Application/bare");
  put(std::string("/var/mobile/Containers/Data/Application/bare/") + kMetadataName, "com.bare");
  putFolder(kStore);
  ::chmod(kStore.c_str(), 0777);
  EXPECT_EQ(cli({"backup", "com.b,com.none,com.bare,com.a,com.b", "daily"}).status, 0);
  EXPECT_EQ(namesIn(kStore),
            (std::vector<std::string>{
                "daily.morvane", "daily.morvane/com.a", "daily.morvane/com.a/Library",
                "daily.morvane/com.a/Library/kept-by-Library", "daily.morvane/com.b",
                "daily.morvane/com.b/Documents", "daily.morvane/com.b/Documents/kept-by-Documents",
                "daily.morvane/com.b/Library", "daily.morvane/com.b/Library/kept-by-Library",
                "daily.morvane/com.bare", "daily.morvane/manifest.txt"}));
  EXPECT_EQ(contentOf(kDaily + "/manifest.txt"), "com.b\ncom.a\ncom.b");
  EXPECT_EQ(modeOf(kStore), 0700U);
  EXPECT_EQ(modeOf(kDaily), 0700U);
}

TEST_F(BackupsAndRestores, ANewBackupReplacesAnOlderOneWholeOrNotAtAll) {
  const std::string app = putApp("app", "com.a");
  put(app + "/Documents/first");
  ASSERT_EQ(cli({"backup", "com.a", "daily"}).status, 0);
  put(kDaily + "/com.old/Documents/of an older run");
  const Tree older = treeAt(kDaily);
  EXPECT_EQ(cli({"backup", "com.none", "daily"}).status, 1);
  EXPECT_EQ(differences(older, treeAt(kDaily)), "");
  EXPECT_EQ(namesIn(kStore).front(), "daily.morvane") << "the staging folder stayed";

  ASSERT_EQ(::unlink((app + "/Documents/first").c_str()), 0);
  put(app + "/Documents/second");
  EXPECT_EQ(cli({"backup", "com.a", "daily"}).status, 0);
  EXPECT_FALSE(exists(kDaily + "/com.old"));
  EXPECT_FALSE(exists(kDaily + "/com.a/Documents/first"));
  EXPECT_TRUE(exists(kDaily + "/com.a/Documents/second"));
  // Whatever stood under the name.
  runCommand({"rm", "-rf", kDaily});
  put(kDaily, "a file");
  EXPECT_EQ(cli({"backup", "com.a", "daily"}).status, 0);
  runCommand({"rm", "-rf", kDaily});
  putLink(kDaily, app);
  EXPECT_EQ(cli({"backup", "com.a", "daily"}).status, 0);
  EXPECT_EQ(contentOf(kDaily + "/manifest.txt"), "com.a");
  EXPECT_TRUE(exists(app + "/Documents/second")) << "the link was followed";
}

TEST_F(BackupsAndRestores, NothingIsEmptiedForABackupThatCannotBeRead) {
  if (!stopsCanChangeCalls()) SKIP_OR_FAIL("calls cannot be made to fail here");
  const std::string app = putApp("app", "com.a");
  ASSERT_EQ(cli({"backup", "com.a", "daily"}).status, 0);
  put(app + "/Documents/later", "x");
  put(app + "/Library/later", "x");
  const int status = StoppedRuns([] { doRestore("daily.morvane"); }).run([](const Stop& stop) {
    const bool opens = stop.call == SYS_openat || stop.call == SYS_openat2;
    if (opens && stop.path == kDaily + "/com.a/Documents") stop.refuse(EIO);
  });
  EXPECT_EQ(status, 0);
  EXPECT_EQ(contentOf(app + "/Documents/later"), "x");
  EXPECT_FALSE(exists(app + "/Library/later")) << "the other folder was not restored";
}

TEST_F(BackupsAndRestores, AFullStoreKeepsTheOlderBackup) {
  const std::string app = putApp("app", "com.a");
  mountMemory(kStore, "1m");
  ASSERT_EQ(cli({"backup", "com.a", "daily"}).status, 0);
  const Tree older = treeAt(kDaily);
  put(app + "/Documents/large", std::string(3 << 20, 'x'));
  const Outcome outcome = cli({"backup", "com.a", "daily"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.out, "");
  EXPECT_NE(outcome.err.find("BACKUP_FAIL daily.morvane: write không verify được (err="),
            std::string::npos);
  EXPECT_EQ(differences(older, treeAt(kDaily)), "");
  // What the failed run left behind does not stand in the way of a later one.
  ASSERT_EQ(::unlink((app + "/Documents/large").c_str()), 0);
  EXPECT_EQ(cli({"removebackup", "ALL"}).out, "REMOVE_OK ALL\n");
  EXPECT_EQ(namesIn(kStore), std::vector<std::string>{});
  EXPECT_EQ(cli({"backup", "com.a", "daily"}).status, 0);
}

TEST_F(BackupsAndRestores, ARestoreTouchesOnlyWhatTheBackupHolds) {
  const std::string app = putApp("app", "com.a");
  const std::string other = putApp("b", "com.b");
  put(kDaily + "/com.a/Library/sub/restored", "old");
  put(kDaily + "/com.a/tmp/ignored");
  put(kDaily + "/com.gone/Documents/x");
  put(kDaily + "/stray file");
  put(kDaily + "/.com.b/Documents/x");
  putLink(kDaily + "/com.b", kDaily + "/com.a");
  put(app + "/Library/newer");
  const Outcome outcome = cli({"restore", "daily.morvane"});
  EXPECT_EQ(outcome.out, "RESTORE_OK daily.morvane\n");
  for (const char* line :
       {"RESTORE_FAIL com.gone: container not found", "RESTORE_FAIL .com.b: container not found",
        "container restored: com.a", "container restored: com.b"}) {
    EXPECT_NE(outcome.err.find(std::string("[morvane_cli] ") + line + "\n"), std::string::npos)
        << line;
  }
  EXPECT_EQ(namesIn(app + "/Library"), (std::vector<std::string>{"sub", "sub/restored"}));
  EXPECT_TRUE(exists(app + "/Documents/kept-by-Documents")) << "not in the backup, so not touched";
  EXPECT_FALSE(exists(app + "/tmp/ignored"));
  EXPECT_TRUE(exists(other + "/Library/sub/restored"));
  // A file in a folder's place: the folder is emptied, nothing is copied, the app counts.
  runCommand({"rm", "-rf", kDaily, other});
  put(kDaily + "/com.a/Documents", "a file");
  EXPECT_EQ(
      cli({"restore", "daily.morvane"}),
      (Outcome{0, "RESTORE_OK daily.morvane\n", "[morvane_cli] container restored: com.a\n"}));
  EXPECT_EQ(namesIn(app + "/Documents"), std::vector<std::string>{});
  // An app that has lost the folder gets it back whole.
  runCommand({"rm", "-rf", kDaily + "/com.a/Documents", app + "/Documents"});
  putHostileTree(kDaily + "/com.a/Documents", "/var/outside", 20);
  const Tree documents = treeAt(kDaily + "/com.a/Documents");
  EXPECT_EQ(cli({"restore", "daily.morvane"}).status, 0);
  EXPECT_EQ(differences(documents, treeAt(app + "/Documents")), "");
}

TEST_F(BackupsAndRestores, RestoreNothingFromWhatIsNoBackup) {
  const std::string app = putApp("app", "com.a");
  const Tree before = treeAt("/var/mobile/Containers");
  put(kStore + "/file.morvane");
  putLink(kStore + "/dangling.morvane", "/nowhere");
  putFolder(kStore + "/empty.morvane");
  for (const char* name : {"file", "dangling", "missing", "empty"}) {
    const Outcome outcome = cli({"restore", std::string(name) + ".morvane"});
    EXPECT_EQ(outcome.err, name == std::string("empty")
                               ? "RESTORE_FAIL empty.morvane: no app data restored\n"
                               : "RESTORE_FAIL: backup not found\n")
        << name;
    EXPECT_EQ(outcome.status, 1) << name;
  }
  EXPECT_EQ(differences(before, treeAt("/var/mobile/Containers")), "");
}

TEST_F(BackupsAndRestores, AreRemovedByNameOrAltogether) {
  EXPECT_EQ(cli({"removebackup", "ALL"}).out, "REMOVE_OK ALL\n");
  EXPECT_FALSE(exists(kStore)) << "made by a removal";
  put("/var/outside/precious");
  put(kStore + "/file.morvane");
  put(kStore + "/one.morvane/com.a/Documents/x");
  put(kStore + "/two.morvane/com.a/Documents/x");
  put(kStore + "/.staging_x_1/com.a/x");
  put(kStore + "/stray \xff");
  putLink(kStore + "/dangling.morvane", "/nowhere");
  putLink(kStore + "/link.morvane", "/var/outside");
  for (const char* name : {"file.morvane", "one.morvane", "link.morvane"}) {
    EXPECT_EQ(cli({"removebackup", name}),
              (Outcome{0, "REMOVE_OK " + std::string(name) + "\n", ""}));
    EXPECT_EQ(cli({"removebackup", name}), (Outcome{1, "", "REMOVE_FAIL: not found\n"}));
  }
  EXPECT_EQ(cli({"removebackup", "dangling.morvane"}).status, 1);
  EXPECT_EQ(namesIn(kStore).size(), 9U);
  EXPECT_EQ(cli({"removebackup", "ALL"}), (Outcome{0, "REMOVE_OK ALL\n", ""}));
  EXPECT_EQ(namesIn(kStore), std::vector<std::string>{});
  EXPECT_TRUE(exists(kStore));
  EXPECT_TRUE(exists("/var/outside/precious"));
}

TEST_F(BackupsAndRestores, KeepOwnersWhoeverTheyAre) {
  if (!ownershipIsFree()) SKIP_OR_FAIL("only root can give files away");
  const std::string app = putApp("app", "com.a");
  put(app + "/Documents/set-user", "x");
  putLink(app + "/Documents/link", "set-user");
  for (const char* name :
       {"", "/Documents", "/Documents/set-user", "/Documents/link", "/Library"}) {
    ASSERT_EQ(::lchown((app + name).c_str(), 501, 20), 0);
  }
  ASSERT_EQ(::chmod((app + "/Documents/set-user").c_str(), 06755), 0);
  for (const char* keywords : {"", "no such name"}) {
    const Tree before = treeAt(app + "/Documents");
    ASSERT_EQ(cli({"backup", "com.a", "daily", keywords}).status, 0);
    EXPECT_EQ(differences(before, treeAt(kDaily + "/com.a/Documents")), "");
    runCommand({"rm", "-rf", app + "/Documents"});
    ASSERT_EQ(cli({"restore", "daily.morvane"}).status, 0);
    EXPECT_EQ(differences(before, treeAt(app + "/Documents")), "");
  }
}

}  // namespace
}  // namespace morvane::test
