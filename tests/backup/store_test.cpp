// What a user would lose: the only copy.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "backup/restore.h"
#include "support/case.h"
#include "support/command.h"
#include "support/trace.h"
#include "support/tree.h"

namespace morvane::test {
namespace {

using Names = std::vector<std::string>;

const std::string kStore = "/var/mobile/MorvaneBackups";
const std::string kDaily = kStore + "/daily.morvane";

class BackupsAndRestores : public Case {};

TEST_F(BackupsAndRestores, AreExactCopiesThereAndBack) {
  put("/var/outside/precious", "photos");
  const Tree outside = treeAt("/var/outside");
  const std::string documents = putApp("app", "com.a") + "/Documents";
  putHostileTree(documents, "/var/outside");
  const Tree before = treeAt(documents);
  EXPECT_EQ(cli({"backup", "com.a", "daily", "no such name"}).out, "BACKUP_OK daily.morvane\n");
  Tree filtered = treeAt(kDaily + "/com.a/Documents");
  for (const char* link : {"out", "sub/up"}) {
    EXPECT_TRUE(filtered.at(link).starts_with("folder")) << filtered.at(link);
    filtered[link] = before.at(link);
  }
  EXPECT_EQ(differences(before, filtered), "");

  EXPECT_EQ(cli({"backup", "com.a", "daily"}).out, "BACKUP_OK daily.morvane\n");
  EXPECT_EQ(differences(before, treeAt(documents), Specials::keep), "");
  const Tree backup = treeAt(kDaily);
  EXPECT_EQ(differences(before, treeAt(kDaily + "/com.a/Documents")), "");
  EXPECT_EQ(cli({"reset", "com.a", "clear"}).status, 0);
  put(documents + "/newer", "goes");
  EXPECT_EQ(cli({"restore", "daily.morvane"}).out, "RESTORE_OK daily.morvane\n");
  // The folder itself was the app's and stays; the entries below are the backup's.
  Tree restored = treeAt(documents);
  restored["."] = before.at(".");
  EXPECT_EQ(differences(before, restored), "");
  EXPECT_EQ(differences(backup, treeAt(kDaily)), "") << "a restore changed the backup";
  // An app that has lost the folder gets it back whole.
  runCommand({"rm", "-rf", documents});
  EXPECT_EQ(cli({"restore", "daily.morvane"}).status, 0);
  EXPECT_EQ(differences(before, treeAt(documents)), "");
  EXPECT_EQ(differences(outside, treeAt("/var/outside"), Specials::keep), "");
}

TEST_F(BackupsAndRestores, LeaveOutWhatTheKeywordsSay) {
  const std::string library = putApp("app", "com.a") + "/Library";
  for (const char* path : {"Caches/x/y", "data.DB", "cache.dbx/deep/file", "keep/me", "ẢNH/x",
                           "keep/Caches/z", "\xff.db", "a,b", "Caf\u0065\u0301/x"}) {
    put(library + "/" + path);
  }
  const Names caches{"Caches", "Caches/x", "Caches/x/y", "keep/Caches", "keep/Caches/z"};
  const struct {
    const char* keywords;
    int skipped;  // -1: a full backup
    Names gone;
  } rows[] = {
      {"", -1, {}},
      {"| |\n*|/|**/", -1, {}},
      {"nothing|cafe", 0, {}},
      {"/caches/", 2, caches},
      {"keep/caches|a,b", 2, {"keep/Caches", "keep/Caches/z", "a,b"}},
      {"*.db", 3, {"cache.dbx", "cache.dbx/deep", "cache.dbx/deep/file", "data.DB", "\xff.db"}},
      {"a\u0309nh|CAFÉ", 2, {"ẢNH", "ẢNH/x", "Caf\u0065\u0301", "Caf\u0065\u0301/x"}},
      {"\xff|data.db|data|DATA.DB", 2, {"\xff.db", "data.DB"}},
  };
  const Names all = namesIn(library);
  for (const auto& row : rows) {
    Names expected = all;
    for (const std::string& gone : row.gone)
      ASSERT_EQ(std::erase(expected, gone), 1U) << row.keywords << " lacks " << gone;
    const Outcome outcome = cli({"backup", "com.a", "daily", row.keywords});
    EXPECT_EQ(namesIn(kDaily + "/com.a/Library"), expected) << row.keywords;
    const std::string line = "[morvane_cli] lightweight backup: skipped " +
                             std::to_string(row.skipped) + " file/dir matching keyword filter\n";
    EXPECT_EQ(outcome.err,
              "[morvane_cli] container backed up: com.a\n" + (row.skipped == -1 ? "" : line));
  }
  // Counts add up over folders and apps; a folder of which nothing is left is still there.
  putApp("b", "com.b");
  EXPECT_NE(cli({"backup", "com.b,com.a", "daily", "kept-by|KEEP"}).err.find("skipped 5 file/dir"),
            std::string::npos);
  EXPECT_EQ(namesIn(kDaily + "/com.b"), (Names{"Documents", "Library"}));
}

TEST_F(BackupsAndRestores, HoldExactlyWhatTheFormatSays) {
  const std::string app = putApp("app", "com.a");
  putApp("b", "com.b");
  runCommand({"rm", "-rf", app + "/Documents"});
  put(app + "/Documents", "a file of that name is no data");
  const std::string bare = "/var/mobile/Containers/Data/Application/bare/";
  put(bare + kMetadataName, "com.bare");
  putFolder(kStore);
  ::chmod(kStore.c_str(), 0777);
  EXPECT_EQ(cli({"backup", "com.b,com.none,com.bare,com.a,com.b", "daily"}).status, 0);
  EXPECT_EQ(namesIn(kStore).size(), 11U) << "more than the backup";
  EXPECT_EQ(namesIn(kDaily),
            (Names{"com.a", "com.a/Library", "com.a/Library/kept-by-Library", "com.b",
                   "com.b/Documents", "com.b/Documents/kept-by-Documents", "com.b/Library",
                   "com.b/Library/kept-by-Library", "com.bare", "manifest.txt"}));
  EXPECT_EQ(contentOf(kDaily + "/manifest.txt"), "com.b\ncom.a\ncom.b");
  EXPECT_EQ(modeOf(kStore), 0700U);
  EXPECT_EQ(modeOf(kDaily), 0700U);
}

TEST_F(BackupsAndRestores, ANewBackupReplacesAnOlderOneWholeOrNotAtAll) {
  const std::string app = putApp("app", "com.a");
  mountMemory(kStore, "1m");
  put(app + "/Documents/first");
  ASSERT_EQ(cli({"backup", "com.a", "daily"}).status, 0);
  put(kDaily + "/com.old/Documents/of an older run");
  const Tree older = treeAt(kDaily);
  EXPECT_EQ(cli({"backup", "com.none", "daily"}).status, 1);
  EXPECT_EQ(differences(older, treeAt(kDaily)), "");
  EXPECT_EQ(namesIn(kStore).front(), "daily.morvane") << "the staging folder stayed";
  // The store gets full. What that leaves behind does not stand in the way of a later run.
  put(app + "/Documents/large", std::string(3 << 20, 'x'));
  const Outcome full = cli({"backup", "com.a", "daily"});
  const std::string why = "BACKUP_FAIL daily.morvane: write không verify được (err=";
  EXPECT_TRUE(full.status == 1 && full.out.empty()) << full;
  EXPECT_NE(full.err.find(why), std::string::npos) << full;
  EXPECT_EQ(full.err.find(why + ")"), std::string::npos) << "no reason given";
  EXPECT_TRUE(full.err.ends_with(") — kiểm tra trustcache/entitlement binary\n")) << full;
  EXPECT_EQ(differences(older, treeAt(kDaily)), "");
  EXPECT_EQ(cli({"removebackup", "ALL"}).out, "REMOVE_OK ALL\n");
  EXPECT_EQ(namesIn(kStore), Names{});
  // Whatever stands under the name.
  runCommand({"rm", app + "/Documents/large"});
  for (const char* there : {"mkdir -p $0/com.old", "echo x >$0", "ln -s /var/mobile $0"}) {
    runCommand({"sh", "-c", there, kDaily});
    EXPECT_EQ(cli({"backup", "com.a", "daily"}).status, 0) << there;
    EXPECT_EQ(contentOf(kDaily + "/manifest.txt"), "com.a") << there;
    EXPECT_FALSE(exists(kDaily + "/com.old"));
    EXPECT_EQ(cli({"removebackup", "daily.morvane"}).status, 0) << there;
  }
  EXPECT_TRUE(exists(app + "/Documents/first")) << "the link was followed";
}

TEST_F(BackupsAndRestores, NothingIsEmptiedForABackupThatCannotBeRead) {
  const std::string app = putApp("app", "com.a");
  ASSERT_EQ(cli({"backup", "com.a", "daily"}).status, 0);
  put(app + "/Documents/later", "x");
  const auto body = [] { doRestore("daily.morvane"); };
  const int status = runInChild(body, [](const Call& call) {
    if (call.opens() && call.path() == kDaily + "/com.a/Documents") call.answer(-EIO);
  });
  EXPECT_EQ(status, 0);
  EXPECT_EQ(contentOf(app + "/Documents/later"), "x");
}

TEST_F(BackupsAndRestores, ARestoreTouchesOnlyWhatTheBackupHolds) {
  const std::string app = putApp("app", "com.a");
  put(kDaily + "/com.a/Library/sub/restored", "old");
  put(kDaily + "/com.a/tmp/ignored");
  put(kDaily + "/com.gone/Documents/x");
  put(kDaily + "/stray file");
  put(app + "/Library/newer");
  const Outcome outcome = cli({"restore", "daily.morvane"});
  EXPECT_EQ(outcome.out, "RESTORE_OK daily.morvane\n");
  EXPECT_NE(outcome.err.find("RESTORE_FAIL com.gone: container not found\n"), std::string::npos);
  EXPECT_EQ(namesIn(app + "/Library"), (Names{"sub", "sub/restored"}));
  EXPECT_TRUE(exists(app + "/Documents/kept-by-Documents")) << "not in the backup, so not touched";
  EXPECT_FALSE(exists(app + "/tmp/ignored"));
  // A file in a folder's place: the folder is emptied, nothing is copied, the app counts.
  runCommand({"rm", "-rf", kDaily});
  put(kDaily + "/com.a/Documents", "a file");
  EXPECT_EQ(
      cli({"restore", "daily.morvane"}),
      (Outcome{0, "RESTORE_OK daily.morvane\n", "[morvane_cli] container restored: com.a\n"}));
  EXPECT_EQ(namesIn(app + "/Documents"), Names{});
  // What is no backup changes nothing.
  const Tree before = treeAt("/var/mobile/Containers");
  put(kStore + "/file.morvane");
  putLink(kStore + "/dangling.morvane", "/nowhere");
  for (const char* name : {"file.morvane", "dangling.morvane"}) {
    EXPECT_EQ(cli({"restore", name}), (Outcome{1, "", "RESTORE_FAIL: backup not found\n"}));
  }
  EXPECT_EQ(differences(before, treeAt("/var/mobile/Containers")), "");
}

TEST_F(BackupsAndRestores, AreRemovedByNameOrAltogether) {
  EXPECT_EQ(cli({"removebackup", "ALL"}).out, "REMOVE_OK ALL\n");
  EXPECT_FALSE(exists(kStore)) << "made by a removal";
  put("/var/outside/precious");
  for (const char* name : {"file.morvane", "one.morvane/com.a/Documents/x", "two.morvane/com.a/x",
                           ".staging_x_1/com.a/x", "stray \xff"}) {
    put(kStore + "/" + name);
  }
  putLink(kStore + "/dangling.morvane", "/nowhere");
  putLink(kStore + "/link.morvane", "/var/outside");
  for (const std::string name : {"file.morvane", "one.morvane", "link.morvane"}) {
    EXPECT_EQ(cli({"removebackup", name}), (Outcome{0, "REMOVE_OK " + name + "\n", ""}));
    EXPECT_EQ(cli({"removebackup", name}), (Outcome{1, "", "REMOVE_FAIL: not found\n"}));
  }
  EXPECT_EQ(cli({"removebackup", "dangling.morvane"}).status, 1);
  EXPECT_EQ(namesIn(kStore).size(), 8U);
  EXPECT_EQ(cli({"removebackup", "ALL"}), (Outcome{0, "REMOVE_OK ALL\n", ""}));
  EXPECT_EQ(namesIn(kStore), Names{});
  EXPECT_TRUE(exists("/var/outside/precious"));
}

}  // namespace
}  // namespace morvane::test
