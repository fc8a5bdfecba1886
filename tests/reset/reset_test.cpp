// What a user would lose: an account, to traces that give the "fresh install" away; or somebody
// else's data, to a reset that reaches too far.

#include "reset/reset.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>

#include "support/case.h"
#include "support/command.h"
#include "support/tree.h"

namespace morvane::test {
namespace {

const std::string kLib = "/var/mobile/Library/";

class FreshInstall : public Case {
 protected:
  /// What stands below /var, paths only.
  static std::vector<std::string> standing() { return namesIn("/var/mobile"); }
};

TEST_F(FreshInstall, EmptiesTheContainersAndNothingElse) {
  const std::string app = putApp("app", "com.a.one");
  put(app + "/StoreKit/receipt");
  put(app + "/top level", "stays");
  put(app + "/Library/SplashBoard/Snapshots/x.ktx");
  put(app + "/Documents/.hidden/deep/er/file");
  put(app + "/Documents/" + kMetadataName, "only the one at the top is kept");
  const std::string group = putGroup("group", "group.com.a.shared.");
  put(group + "/.hidden/file");
  put(group + "/Library/" + kMetadataName, "goes with its folder");
  const std::string bare = putGroup("bare", "group.com.a");
  ASSERT_EQ(::unlink((bare + "/Library/shared.db").c_str()), 0);
  ASSERT_EQ(::rmdir((bare + "/Library").c_str()), 0);
  putApp("other", "com.b.two");
  putGroup("other", "group.com.ab.x.");
  const Tree other = treeAt("/var/mobile/Containers/Data/Application/other");
  const Tree otherGroup = treeAt("/var/mobile/Containers/Shared/AppGroup/other");

  const Outcome outcome = cli({"reset", "com.a.one", "clear", "sys=0"});
  EXPECT_EQ(outcome.out, "RESET_OK com.a.one\n");
  EXPECT_EQ(namesIn(app),
            (std::vector<std::string>{kMetadataName, "Documents", "Library", "StoreKit",
                                      "StoreKit/receipt", "SystemData", "tmp", "top level"}));
  EXPECT_EQ(namesIn(group), std::vector<std::string>{kMetadataName});
  EXPECT_EQ(namesIn(bare), std::vector<std::string>{kMetadataName});
  EXPECT_NE(outcome.err.find("appgroup wiped (full top-level): bare\n"), std::string::npos);
  EXPECT_EQ(differences(other, treeAt("/var/mobile/Containers/Data/Application/other")), "");
  EXPECT_EQ(differences(otherGroup, treeAt("/var/mobile/Containers/Shared/AppGroup/other")), "");
}

TEST_F(FreshInstall, KeepsWhatTheFlagsProtect) {
  const struct {
    const char* flags;
    const char* mode;
    bool data, traces, receipt, snapshots;  // what is left
  } rows[] = {
      {"", "clear", false, false, true, false},
      {"appdata=0", "clear", true, false, true, true},
      {"sys=0,appdata=0", "clear", true, true, true, true},
      {"sys=0,appdata=0,receipt=1", "clear", true, true, false, true},
      {"sys=0,appdata=0,receipt=1", "kill", true, true, false, false},
      {"receipt=1,receipt=0,sys=0,appdata=1", "clear", false, true, true, false},
  };
  for (const auto& row : rows) {
    const std::string app = putApp("app", "com.a.one");
    const std::string group = putGroup("group", "group.com.a.x.");
    put(app + "/StoreKit/receipt");
    put(app + "/StoreKit/sandboxReceipt/inside");
    put(app + "/StoreKit/other");
    put(app + "/Library/SplashBoard/Snapshots/a/x.ktx");
    put(app + "/Library/Saved Application State/y");
    put(kLib + "Caches/com.a.one/x");
    cli({"reset", "com.a.one", row.mode, row.flags});
    const std::string what = std::string(row.flags) + " " + row.mode;
    EXPECT_EQ(exists(app + "/Documents/kept-by-Documents"), row.data) << what;
    EXPECT_EQ(exists(group + "/Library"), row.data) << what;
    EXPECT_EQ(exists(kLib + "Caches/com.a.one"), row.traces) << what;
    EXPECT_EQ(exists(app + "/StoreKit/receipt"), row.receipt) << what;
    EXPECT_EQ(exists(app + "/StoreKit/sandboxReceipt"), row.receipt) << what;
    EXPECT_TRUE(exists(app + "/StoreKit/other")) << what;
    EXPECT_EQ(exists(app + "/Library/SplashBoard/Snapshots/a"), row.snapshots) << what;
    EXPECT_EQ(exists(app + "/Library/Saved Application State/y"), row.snapshots) << what;
    if (row.data) {
      EXPECT_TRUE(exists(app + "/Library/Saved Application State")) << what;
    }
  }
}

TEST_F(FreshInstall, IsReportedExactlyWhenSomethingWasFound) {
  const struct {
    std::string there;  // in the app's container, in its group, or in the library
    const char* reset;
    bool found;
  } rows[] = {
      {"nothing", "com.a clear receipt=1", false},
      {"app/", "com.a clear sys=0", true},
      {"app/", "com.a clear appdata=0,receipt=1", false},
      {"app/Library/SplashBoard/Snapshots/x", "com.a kill appdata=0,sys=0", false},
      {"app/StoreKit/sandboxReceipt", "com.a clear appdata=0,sys=0,receipt=1", true},
      {"app/StoreKit/sandboxReceipt", "com.a clear appdata=0,sys=0", false},
      {"group/", "com.a clear sys=0", true},
      {"group/", "com.a clear appdata=0", false},
      {"Cookies/com.a.binarycookies", "com.a clear", true},
      {"Caches/com.a ->", "com.a clear", false},
      {"BulletinBoard/x/com.a.plist", "com.a clear", true},
      {"BulletinBoard/com.ab.plist", "com.a clear", false},
      {"Safari/Bookmarks.plist", "com.apple.mobilesafari clear", false},
      {"WebKit/WebsiteData/x", "com.apple.mobilesafari clear", false},
      {"Safari/Bookmarks.db-wal", "com.apple.mobilesafari clear", true},
      {"Safari/dangling.db ->", "com.apple.mobilesafari clear", true},
      {"Cookies/Cookies.binarycookies", "com.apple.mobilesafari clear", true},
      {"Safari/Bookmarks.db", "com.apple.mobilesafar clear", false},
  };
  for (const auto& row : rows) {
    runCommand({"sh", "-c", "rm -rf /var/mobile/*"});
    if (row.there.starts_with("app/")) {
      put(putApp("a", "com.a") + row.there.substr(3) + "/x");
    } else if (row.there.starts_with("group/")) {
      putGroup("g", "group.com.a.");
    } else if (row.there.ends_with(" ->")) {
      putLink(kLib + row.there.substr(0, row.there.size() - 3), "/nowhere");
    } else {
      put(kLib + row.there);
    }
    const Outcome outcome = cliLine(std::string("reset ") + row.reset);
    const std::string what = row.there + ": reset " + row.reset;
    EXPECT_EQ(outcome.out.starts_with("RESET_OK "), row.found) << what;
    EXPECT_EQ(outcome.out.ends_with(": nothing found to reset\n"), !row.found) << what;
    EXPECT_EQ(outcome.status, row.found ? 0 : 1) << what;
  }
}

TEST_F(FreshInstall, LeavesNoTraceInTheSystemsFolders) {
  const std::vector<std::string> folders{"Caches", "HTTPStorages", "WebKit",
                                         "SpringBoard/PushStore", "Cookies"};
  for (const std::string& folder : folders) {
    for (const char* suffix : {"", ".binarycookies", ".pushstore"}) {
      put(kLib + folder + "/com.a" + suffix + "/deep/file");
    }
    for (const char* other : {"com.ab", "com.a.b", "xcom.a", "com.a.binarycookies.x", "COM.A"}) {
      put(kLib + folder + "/" + other);
    }
  }
  const std::string board = kLib + "BulletinBoard/";
  for (const char* gone : {"com.a", "com.a.plist", "x/com.a.b/y/z", "x/y/com.a.",
                           "SectionInfo/com.a/x.plist", "SectionInfo/com.a/com.a.plist"}) {
    put(board + gone);
  }
  for (const char* kept : {"com.ab.plist", "xcom.a", "COM.A", "x/com", "x/com.A.plist"}) {
    put(board + kept);
  }
  putLink(board + "com.a.link", "/var/outside");
  putLink(board + "entered", "/var/outside");
  put("/var/outside/com.a.plist");
  EXPECT_EQ(cli({"reset", "com.a", "clear"}).out, "RESET_OK com.a\n");

  std::vector<std::string> expected{"BulletinBoard/COM.A",         "BulletinBoard/com.ab.plist",
                                    "BulletinBoard/xcom.a",        "BulletinBoard/x/com",
                                    "BulletinBoard/x/com.A.plist", "BulletinBoard/entered"};
  for (const std::string& folder : folders) {
    for (const char* other : {"com.ab", "com.a.b", "xcom.a", "com.a.binarycookies.x", "COM.A"}) {
      expected.push_back(folder + "/" + other);
    }
  }
  std::vector<std::string> files;
  for (const auto& [path, words] : treeAt(kLib)) {
    if (!words.starts_with("folder")) files.push_back(path);
  }
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(files, expected);
  EXPECT_TRUE(exists("/var/outside/com.a.plist")) << "a link in the notifications was entered";
}

TEST_F(FreshInstall, OfSafariTakesItsDatabasesAndAllWebData) {
  for (const char* name : {"History.db", "History.db-wal", "x.dbfolder/inside", "Bookmarks.plist",
                           "sub/Nested.db", ".db"}) {
    put(kLib + "Safari/" + name);
  }
  put(kLib + "Cookies/Cookies.binarycookies");
  put(kLib + "Cookies/other.binarycookies");
  put(kLib + "WebKit/WebsiteData/any/site");
  put(kLib + "WebKit/com.other/x");
  const Outcome outcome = cli({"reset", "com.apple.mobilesafari", "clear"});
  EXPECT_EQ(outcome.out, "RESET_OK com.apple.mobilesafari\n");
  EXPECT_EQ(namesIn(kLib),
            (std::vector<std::string>{"Cookies", "Cookies/other.binarycookies", "Safari",
                                      "Safari/Bookmarks.plist", "Safari/sub",
                                      "Safari/sub/Nested.db", "WebKit", "WebKit/WebsiteData",
                                      "WebKit/com.other", "WebKit/com.other/x"}));
}

TEST_F(FreshInstall, WaitsForTheAppToEndExactlyWhereItMust) {
  const std::pair<const char*, double> rows[] = {{"reset com.a clear", 0},
                                                 {"reset com.a kill", 1},
                                                 {"reset com.apple.mobilesafari clear", 1},
                                                 {"reset com.apple.mobilesafari kill", 2}};
  for (const auto& [line, seconds] : rows) {
    const auto start = std::chrono::steady_clock::now();
    cliLine(line);
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took.count(), seconds) << line;
    EXPECT_LT(took.count(), seconds + 0.95) << line;
  }
}

TEST_F(FreshInstall, NeverReachesOutOfTheApp) {
  put("/var/outside/precious", "photos");
  put("/var/outside/com.a/precious", "photos");
  const Tree outside = treeAt("/var/outside");
  const std::string app = putApp("app", "com.a");
  putHostileTree(app + "/Documents/hostile", "/var/outside", 2000);
  putHostileTree(kLib + "Caches/com.a", "/var/outside", 40);
  putHostileTree(kLib + "BulletinBoard/hostile", "/var/outside", 40);
  EXPECT_EQ(cli({"reset", "com.a", "kill", "receipt=1"}).out, "RESET_OK com.a\n");
  EXPECT_EQ(differences(outside, treeAt("/var/outside"), Specials::keep), "");
  EXPECT_EQ(namesIn(app + "/Documents"), std::vector<std::string>{});
  EXPECT_FALSE(exists(kLib + "Caches/com.a"));
  EXPECT_TRUE(exists(kLib + "BulletinBoard/hostile/chain"));
}

}  // namespace
}  // namespace morvane::test
