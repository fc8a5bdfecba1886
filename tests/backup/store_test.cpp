// What a user would lose: the only copy, or files that a keyword was not meant to leave out.

#include "backup/store.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "backup/keywords.h"
#include "support/case.h"
#include "support/command.h"
#include "support/tree.h"

namespace morvane::test {
namespace {

using Names = std::vector<std::string>;
using std::string_literals::operator""s;

const std::string kStore = "/var/mobile/MorvaneBackups";
const std::string kDaily = kStore + "/daily.morvane";
const std::string kFiltered = "[morvane_cli] lightweight backup: skipped ";

class BackupsAndRestores : public Case {};

TEST_F(BackupsAndRestores, LeaveOutWhatTheKeywordsSay) {
  const std::string library = putApp("app", "com.a") + "/Library";
  const std::string wide(60, 'w');
  for (const char* path :
       {"Caches/x/y", "data.DB", "cache.dbx/deep/file", "keep/1/x", "keep/2/x", "ẢNH/x",
        "keep/Caches/z", "\xff.db", "a,b", "e\u0301/e\u0301e\u0301e\u0301/b", "cafe\u0301s", "Ω",
        "한글", "u\u0301\u0323", "ΣΑΣ", "Straße"}) {
    put(library + "/" + path);
  }
  put(library + "/" + wide + "/b/c");
  const Names all = namesIn(library);
  const std::tuple<std::string, std::string, Names> rows[] = {
      // What is gone with its folder is not counted.
      {"/caches/", "2", {"Caches", "Caches/x", "Caches/x/y", "keep/Caches", "keep/Caches/z"}},
      {"*.db", "3", {"cache.dbx", "cache.dbx/deep", "cache.dbx/deep/file", "data.DB", "\xff.db"}},
      {"\xff|data.db|data|DATA.DB|a,b", "3", {"\xff.db", "data.DB", "a,b"}},
      {"a\u0309nh|nothing|anh", "1", {"ẢNH", "ẢNH/x"}},
      {"CAFÉ|\u2126|\u1112\u1161\u11ab|ụ\u0301|σας|STRASSE",
       "6",
       {"cafe\u0301s", "Ω", "한글", "u\u0301\u0323", "ΣΑΣ", "Straße"}},
      {"cafe|cafés\u0301|\xcc|u\u0301|ΣΑΣΑ", "0", {}},
      // The whole path counts, of which the filter looks at the end; and nothing but the path.
      {"keep/caches|1/2|2/1|12|21", "1", {"keep/Caches", "keep/Caches/z"}},
      {"É/ééé/B", "1", {"e\u0301/e\u0301e\u0301e\u0301/b"}},
      {"w/b/c", "1", {wide + "/b/c"}},
      {"", "", {}},
      {"| |\n*|/|**/", "", {}},
  };
  for (const auto& [keywords, skipped, gone] : rows) {
    Names expected = all;
    for (const std::string& name : gone)
      ASSERT_EQ(std::erase(expected, name), 1U) << keywords << " lacks " << name;
    std::string log = "[morvane_cli] container backed up: com.a\n";
    if (!skipped.empty()) log += kFiltered + skipped + " file/dir matching keyword filter\n";
    EXPECT_EQ(cli({"backup", "com.a", "daily", keywords}).err, log);
    EXPECT_EQ(namesIn(kDaily + "/com.a/Library"), expected) << keywords;
  }
  // Counts add up over folders and apps; a folder of which nothing is left is still there.
  putApp("b", "com.b");
  const std::string log = cliLine("backup com.b,com.a daily kept-by|KEEP").err;
  EXPECT_NE(log.find(kFiltered + "5 "), std::string::npos) << log;
  EXPECT_EQ(namesIn(kDaily + "/com.b"), (Names{"Documents", "Library"}));
}

TEST(Keywords, BecomeNeedles) {
  const std::pair<const char*, Names> rows[] = {
      {"Caches| Cookies |*.sqlite|/tmp/||*", {"Caches", "Cookies", ".sqlite", "tmp"}},
      {"| \t|\n*|/|**/|*/ *|/ /", {" ", " "}},  // trimmed before the "*" and "/" go, not after
      {"b\na *|* a|\u3000a\u00a0|\ra\r|\u200bz", {"b", "a ", " a", "a", "\ra\r", "\u200bz"}},
      {"/a/b/|//a//b//|*/a/*|a,b*c*", {"a/b", "a//b", "a", "a,bc"}},
  };
  for (const auto& [keywords, needles] : rows)
    EXPECT_EQ(parseKeywordNeedles(keywords), needles) << keywords;
}

TEST_F(BackupsAndRestores, HoldExactlyWhatTheFormatSays) {
  const std::string app = putApp("app", "com.a");
  putApp("b", "com.b");
  runCommand({"rm", "-rf", app + "/Documents"});
  put(app + "/Documents", "a file of that name is no data");
  put("/var/mobile/Containers/Data/Application/bare/"s + kMetadataName, "com.bare");
  runCommand({"mkdir", "-m", "777", kStore});
  EXPECT_EQ(cliLine("backup com.b,com.none,com.bare,com.a,com.b daily").status, 0);
  EXPECT_EQ(namesIn(kDaily),
            (Names{"com.a", "com.a/Library", "com.a/Library/kept-by-Library", "com.b",
                   "com.b/Documents", "com.b/Documents/kept-by-Documents", "com.b/Library",
                   "com.b/Library/kept-by-Library", "com.bare", "manifest.txt"}));
  EXPECT_EQ(contentOf(kDaily + "/manifest.txt"), "com.b\ncom.a\ncom.b");
  for (const std::string& folder : {kStore, kDaily})
    EXPECT_TRUE(treeAt(folder)["."].starts_with("folder 700 ")) << folder;
}

/// Runs a command in which each call of this number on such a path fails.
Outcome cliWhere(const std::vector<std::string>& words, long number, const std::string& path,
                 int error) {
  return cli(words, [&](const Call& call) {
    if (call.number == number && call.path().ends_with(path)) call.answer(-error);
  });
}

TEST_F(BackupsAndRestores, AreSafeFromWhatAnotherRunOrTheSystemDoes) {
  const std::string app = putApp("app", "com.a");
  const std::string staging = ".staging_daily_" + std::to_string(::getpid());
  // Left by runs that are dead; and held by one that is not.
  put(kStore + "/" + staging + "/com.dead/x");
  put(kStore + "/.staging_daily_1/com.dead/x");
  Staging first("daily");
  EXPECT_EQ(cliLine("removebackup ALL").status, 0);
  EXPECT_EQ(namesIn(kStore), Names{staging}) << "of a run at work";
  EXPECT_EQ(Staging("daily").publish({"com.b"}), staging + ": Device or resource busy");
  EXPECT_EQ(first.publish({"com.old"}), "");
  EXPECT_EQ(namesIn(kStore), (Names{"daily.morvane", "daily.morvane/manifest.txt"}));
  const Names backup{"backup", "com.a", "daily"};
  EXPECT_TRUE(cliWhere(backup, SYS_newfstatat, "/daily.morvane/manifest.txt", ENOENT)
                  .err.ends_with("(err=verify-read-back thất bại) — kiểm tra "
                                 "trustcache/entitlement binary\n"));
  EXPECT_EQ(contentOf(kDaily + "/manifest.txt"), "com.old");
  // A file system that cannot exchange two names.
  EXPECT_EQ(cliWhere(backup, SYS_renameat2, "", EINVAL).out, "BACKUP_OK daily.morvane\n");
  EXPECT_EQ(contentOf(kDaily + "/manifest.txt"), "com.a");
  // What the app has is not given up for what cannot be read.
  put(app + "/Documents/newer");
  cli({"restore", "daily.morvane"}, [](const Call& call) {
    if (call.opens() && call.path() == kDaily + "/com.a/Documents") call.answer(-EIO);
  });
  EXPECT_TRUE(exists(app + "/Documents/newer"));
}

TEST_F(BackupsAndRestores, EndAndLastWhereTheStoreIsInTheAppsFolder) {
  const std::string documents = putApp("app", "com.a") + "/Documents";
  const std::string backup = documents + "/deep/store/daily.morvane/com.a/Documents";
  putFolder(documents + "/deep/store");
  putLink(kStore, documents + "/deep/store");
  for (const char* keywords : {"", "no-such-name"}) {
    const Outcome made = cli({"backup", "com.a", "daily", keywords});
    EXPECT_NE(made.err.find("incomplete for com.a: 1 file"), std::string::npos) << made;
    EXPECT_EQ(namesIn(backup), Names{"kept-by-Documents"});
  }
  const Outcome restored = cliLine("restore daily.morvane");
  EXPECT_NE(restored.err.find("incomplete for com.a: 1 file"), std::string::npos) << restored;
  EXPECT_EQ(namesIn(backup), Names{"kept-by-Documents"});
}

TEST_F(BackupsAndRestores, ANewBackupReplacesAnOlderOneWholeOrNotAtAll) {
  const std::string app = putApp("app", "com.a");
  mountMemory(kStore, "1m");
  put(kDaily + "/com.old/Documents/of an older run");
  const Names older = namesIn(kStore);
  EXPECT_EQ(cliLine("backup com.none daily").status, 1);
  EXPECT_EQ(namesIn(kStore), older) << "the staging folder stayed";
  // The store gets full. What that leaves behind does not stand in the way of a later run.
  put(app + "/Documents/large", std::string(3 << 20, 'x'));
  const Outcome full = cliLine("backup com.a daily");
  EXPECT_NE(full.err.find("(err=copy: No space left on device)"), std::string::npos) << full;
  EXPECT_EQ(namesIn(kStore), older);
  // Whatever stands under the name.
  runCommand({"rm", app + "/Documents/large"});
  for (const std::string there : {"true ", "echo x >", "ln -s /var/mobile "}) {
    shell(there + kDaily);
    EXPECT_EQ(cliLine("backup com.a daily").status, 0) << there;
    EXPECT_EQ(contentOf(kDaily + "/manifest.txt"), "com.a") << there;
    EXPECT_EQ(namesIn(kStore).size(), 7U) << "more than the backup";
    EXPECT_EQ(cliLine("removebackup daily.morvane").status, 0) << there;
  }
  EXPECT_TRUE(exists(app + "/Documents/kept-by-Documents")) << "the link was followed";
}

TEST_F(BackupsAndRestores, ARestoreTouchesOnlyWhatTheBackupHolds) {
  const std::string app = putApp("app", "com.a");
  for (const char* path : {"com.a/Library/sub/restored", "com.a/tmp/ignored",
                           "com.gone/Documents/x", "com.a/Documents", "stray file"}) {
    put(kDaily + "/" + path);
  }
  const Outcome outcome = cliLine("restore daily.morvane");
  EXPECT_EQ(outcome.out, "RESTORE_OK daily.morvane\n");
  EXPECT_NE(outcome.err.find("RESTORE_FAIL com.gone: container not found\n"), std::string::npos);
  // A file in a folder's place: the folder is emptied, nothing is copied.
  EXPECT_EQ(namesIn(app),
            (Names{kMetadataName, "Documents", "Library", "Library/sub", "Library/sub/restored",
                   "SystemData", "SystemData/kept-by-SystemData", "tmp", "tmp/kept-by-tmp"}));
  put(kStore + "/only.morvane/com.a/Documents", "a file");
  EXPECT_EQ(cliLine("restore only.morvane").status, 0);
  put(kStore + "/file.morvane");
  putLink(kStore + "/dangling.morvane", "/nowhere");
  for (const char* command : {"restore file.morvane", "restore dangling.morvane"})
    EXPECT_EQ(cliLine(command).err, "RESTORE_FAIL: backup not found\n");
}

TEST_F(BackupsAndRestores, AreRemovedByNameOrAltogether) {
  EXPECT_EQ(cliLine("removebackup ALL").status, 0);
  EXPECT_FALSE(exists(kStore)) << "made by a removal";
  put("/var/outside/precious");
  for (const char* name : {"file.morvane", "one.morvane/com.a/x", ".staging_x_1/x", "stray \xff"})
    put(kStore + "/" + name);
  putLink(kStore + "/dangling.morvane", "/nowhere");
  putLink(kStore + "/link.morvane", "/var/outside");
  for (const std::string name : {"file.morvane", "one.morvane", "link.morvane"}) {
    EXPECT_EQ(cliLine("removebackup " + name).status, 0) << name;
    EXPECT_EQ(cliLine("removebackup " + name).status, 1) << name;
  }
  EXPECT_EQ(cliLine("removebackup dangling.morvane").status, 1);
  EXPECT_EQ(namesIn(kStore),
            (Names{".staging_x_1", ".staging_x_1/x", "dangling.morvane", "stray \xff"}));
  EXPECT_EQ(cliLine("removebackup ALL").status, 0);
  EXPECT_TRUE(exists(kStore) && namesIn(kStore).empty());
  EXPECT_TRUE(exists("/var/outside/precious"));
}

}  // namespace
}  // namespace morvane::test
