// What a user would lose: an account, to traces that give the "fresh install" away; or somebody
// else's data, to a reset that reaches too far.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>

#include "reset/keychain_groups.h"
#include "support/case.h"
#include "support/command.h"
#include "support/tree.h"

namespace morvane::test {
namespace {

using Names = std::vector<std::string>;

const std::string kLib = "/var/mobile/Library/";

class FreshInstall : public Case {};

TEST_F(FreshInstall, EmptiesTheContainersAndNothingElse) {
  const std::string app = putApp("app", "com.a.one");
  put(app + "/StoreKit/receipt");
  put(app + "/top level", "stays");
  put(app + "/Documents/" + kMetadataName, "only the one at the top is kept");
  putHostileTree(app + "/Documents/hostile", "/var/outside", 2000);
  const std::string group = putGroup("group", "group.com.a.shared.");
  put(group + "/.hidden/file");
  put(group + "/Library/" + kMetadataName, "goes with its folder");
  // Somebody else's.
  put("/var/outside/com.a.one/precious", "photos");
  const Names others{"/var/outside", putApp("other", "com.b.two"),
                     putGroup("other", "group.com.ab.x.")};
  std::vector<Tree> before;
  for (const std::string& path : others)
    before.push_back(treeAt(path));

  EXPECT_EQ(cli({"reset", "com.a.one", "clear", "sys=0"}).out, "RESET_OK com.a.one\n");
  EXPECT_EQ(namesIn(app), (Names{kMetadataName, "Documents", "Library", "StoreKit",
                                 "StoreKit/receipt", "SystemData", "tmp", "top level"}));
  EXPECT_EQ(namesIn(group), Names{kMetadataName});
  for (size_t i = 0; i < others.size(); ++i)
    EXPECT_EQ(differences(before[i], treeAt(others[i]), Specials::keep), "");
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
      {"sys=0,appdata=0,receipt=1", "kill", true, true, false, false},
      {"receipt=1,receipt=0,sys=0,appdata=1", "clear", false, true, true, false},
  };
  for (const auto& row : rows) {
    const std::string app = putApp("app", "com.a.one");
    const std::string group = putGroup("group", "group.com.a.x.");
    const std::pair<std::string, bool> files[] = {
        {app + "/StoreKit/receipt", row.receipt},
        {app + "/StoreKit/sandboxReceipt/inside", row.receipt},
        {app + "/StoreKit/other", true},
        {"/var/mobile/Containers/Data/Application/iTunesMetadata.plist", true},
        {app + "/Library/SplashBoard/Snapshots/a/x.ktx", row.snapshots},
        {app + "/Library/Saved Application State/y", row.snapshots},
        {app + "/Library/other", row.data},
        {app + "/Documents/x", row.data},
        {group + "/Library/x", row.data},
        {kLib + "Caches/com.a.one/x", row.traces},
    };
    for (const auto& [file, stays] : files)
      put(file);
    cli({"reset", "com.a.one", row.mode, row.flags});
    for (const auto& [file, stays] : files)
      EXPECT_EQ(exists(file), stays) << file << " after " << row.mode << " " << row.flags;
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
      {"Caches/com.a (immutable)", "com.a clear", true},  // there, whatever became of it
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
    const std::string path = kLib + row.there.substr(0, row.there.find(' '));
    if (row.there.starts_with("app/")) {
      put(putApp("a", "com.a") + row.there.substr(3) + "/x");
    } else if (row.there.starts_with("group/")) {
      putGroup("g", "group.com.a.");
    } else if (row.there.ends_with(" ->")) {
      putLink(path, "/nowhere");
    } else {
      put(path);
    }
    if (row.there.ends_with(")")) (void)!std::system(("chattr +i " + path).c_str());
    const Outcome outcome = cliLine(std::string("reset ") + row.reset);
    if (row.there.ends_with(")")) (void)!std::system(("chattr -i " + path).c_str());
    const std::string what = row.there + ": reset " + row.reset;
    EXPECT_EQ(outcome.out.starts_with("RESET_OK "), row.found) << what;
    EXPECT_EQ(outcome.out.ends_with(": nothing found to reset\n"), !row.found) << what;
    EXPECT_EQ(outcome.status, row.found ? 0 : 1) << what;
  }
}

TEST_F(FreshInstall, LeavesNoTraceInTheSystemsFolders) {
  Names kept{"BulletinBoard/com.ab.plist", "BulletinBoard/xcom.a",   "BulletinBoard/COM.A",
             "BulletinBoard/x/com",        "Safari/Bookmarks.plist", "Safari/sub/Nested.db",
             "Cookies/other.binarycookies"};
  Names gone{"BulletinBoard/com.a",
             "BulletinBoard/com.a.plist",
             "BulletinBoard/x/com.a.b/y/z",
             "BulletinBoard/x/y/com.a.",
             "BulletinBoard/Info/com.a/com.a.plist",
             "Safari/History.db",
             "Safari/History.db-wal",
             "Safari/x.dbfolder/inside",
             "Safari/.db",
             "Cookies/Cookies.binarycookies",
             "WebKit/WebsiteData/any/site"};
  for (const std::string folder :
       {"Caches", "HTTPStorages", "WebKit", "SpringBoard/PushStore", "Cookies"}) {
    for (const char* suffix : {"", ".binarycookies", ".pushstore"})
      gone.push_back(folder + "/com.a" + suffix + "/deep/file");
    for (const char* other : {"com.ab", "com.a.b", "xcom.a", "com.a.binarycookies.x", "COM.A"})
      kept.push_back(folder + "/" + other);
  }
  for (const Names& names : {gone, kept}) {
    for (const std::string& name : names)
      put(kLib + name);
  }
  put("/var/outside/com.a.plist");
  const Tree outside = treeAt("/var/outside");
  putLink(kLib + "BulletinBoard/com.a.link", "/var/outside");
  putLink(kLib + "BulletinBoard/entered", "/var/outside");
  kept.push_back("BulletinBoard/entered");
  putHostileTree(kLib + "Caches/com.a/hostile", "/var/outside", 40);
  EXPECT_EQ(cli({"reset", "com.a,com.apple.mobilesafari", "clear"}).out,
            "RESET_OK com.a\nRESET_OK com.apple.mobilesafari\n");
  EXPECT_EQ(namesIn(kLib + "WebKit/WebsiteData"), Names{});
  Names files;
  for (const auto& [path, words] : treeAt(kLib)) {
    if (!words.starts_with("folder")) files.push_back(path);
  }
  std::sort(kept.begin(), kept.end());
  EXPECT_EQ(files, kept);
  EXPECT_EQ(differences(outside, treeAt("/var/outside")), "") << "a link was followed";
}

TEST_F(FreshInstall, ClearsTheKeychainGroupsOfTheFamilies) {
  const Names facebook{"T84QZS65DQ.platformFamily", "group.com.facebook.family",
                       "group.com.facebook.Facebook", "group.com.facebook.msysstorage",
                       "T84QZS65DQ.com.facebook.Facebook"};
  const Names instagram{"com.facebook.family", "group.com.burbn.instagram",
                        "group.com.instagram.shared", "T84QZS65DQ.platformFamily"};
  const Names tiktok{"group.com.zhiliaoapp.musically"};
  const std::pair<Names, Names> rows[] = {
      {facebook, {"com.facebook.Facebook", "com.facebook.Messenger", "com.facebook.Orca"}},
      {instagram, {"com.burbn.instagram"}},
      {tiktok,
       {"com.zhiliaoapp.musically", "com.ss.iphone.ugc.Aweme", "com.ss.iphone.ugc.Aweme.lite",
        "com.ss.iphone.ugc.Awemelite"}},
      {{},
       {"com.facebook.orca", "com.facebook.Facebook2", "com.burbn.instagram.x",
        "com.zhiliaoapp.musically.x", "com.ss.iphone.ugc.Ame", "com.apple.mobilesafari"}},
  };
  for (const auto& [groups, bundles] : rows) {
    for (const std::string& bundle : bundles)
      EXPECT_EQ(kcGroupsForBundle(bundle), groups) << bundle;
  }
  // Without a keychain there is nothing in the group that the tool may clear, which is silent; each
  // of the others is refused, class by class, and that does not fail the reset.
  std::string expected = "[morvane_cli] RESET com.burbn.instagram\n";
  for (size_t i = 0; i < 3; ++i) {
    for (const char* code : {"genp", "inet", "keys", "cert", "idnt"}) {
      expected += "[morvane_cli] kc delete " + instagram[i] + "/" + code + " -> OSStatus -34018\n";
    }
  }
  expected +=
      "[morvane_cli] keychain cleared for com.burbn.instagram "
      "[com.facebook.family,group.com.burbn.instagram,group.com.instagram.shared,"
      "T84QZS65DQ.platformFamily], left=0\n"
      "[morvane_cli] appdata wipe skipped (flag appdata=0) for com.burbn.instagram\n"
      "[morvane_cli] system-level wipe skipped (flag sys=0) for com.burbn.instagram\n";
  EXPECT_EQ(cli({"reset", "com.burbn.instagram", "clear", "sys=0,appdata=0"}),
            (Outcome{0, "RESET_OK com.burbn.instagram\n", expected}));
}

}  // namespace
}  // namespace morvane::test
