// What a user would lose: an account, to traces that give the "fresh install" away; or somebody
// else's data or running program, to a reset that reaches too far.

#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <chrono>
#include <functional>

#include "reset/keychain_groups.h"
#include "reset/processes.h"
#include "support/case.h"
#include "support/command.h"
#include "support/tree.h"
#include "text/pieces.h"

namespace morvane::test {
namespace {

using Names = std::vector<std::string>;

constexpr NameMatch kWhole = NameMatch::whole;
constexpr NameMatch kPart = NameMatch::containing;

const std::string kLib = "/var/mobile/Library/";
const std::string kApp = "/var/mobile/Containers/Data/Application/app/";
const std::string kGroup = "/var/mobile/Containers/Shared/AppGroup/group/";

/// Makes these files, and folders where a name ends in "/", in `folder`.
void putAll(const std::string& folder, std::string_view names) {
  for (const std::string_view name : splitAt(names, ' ')) {
    const std::string path = folder + std::string(name);
    path.ends_with("/") ? putFolder(path) : put(path);
  }
}

class FreshInstall : public Case {};

TEST_F(FreshInstall, LeavesNothingOfTheAppAndEverythingElse) {
  std::string kept =
      "BulletinBoard/com.ab.plist BulletinBoard/xcom.a BulletinBoard/COM.A BulletinBoard/x/com "
      "BulletinBoard/x/y/ Safari/Bookmarks.plist Safari/sub/Nested.db WebKit/WebsiteData/";
  std::string gone =
      "BulletinBoard/com.a BulletinBoard/com.a.plist BulletinBoard/x/com.a.b/y/z "
      "BulletinBoard/x/y/com.a. BulletinBoard/x/com.a/com.a.plist Safari/History.db "
      "Safari/History.db-wal Safari/x.dbfolder/inside Safari/.db Cookies/Cookies.binarycookies "
      "WebKit/WebsiteData/any/site";
  for (const std::string folder :
       {" Caches/", " HTTPStorages/", " WebKit/", " SpringBoard/PushStore/", " Cookies/"}) {
    for (const char* own : {"com.a", "com.a.binarycookies", "com.a.pushstore"})
      gone += folder + own + "/deep/file";
    for (const char* other : {"com.ab", "com.a.b", "xcom.a", "com.a.binarycookies.x", "COM.A"})
      kept += folder + other;
  }
  put("/var/outside/com.a.plist");
  putLink(kLib + "BulletinBoard/entered", "/var/outside");
  putAll(kLib, kept);
  putApp("other", "com.b");
  putGroup("other", "group.com.ab.x.");
  put(kApp + kMetadataName, "com.a");
  putAll(kApp, "Documents/ Library/ SystemData/ tmp/ StoreKit/receipt top-level");
  put(kGroup + kMetadataName, "group.com.a.shared.");
  const Names before = namesIn("/var");
  const Tree outside = treeAt("/var/outside");
  putAll(kLib, gone);
  putApp("app", "com.a");
  putAll(kGroup, ".hidden/file Library/" + std::string(kMetadataName));
  putLink(kLib + "BulletinBoard/com.a.link", "/var/outside");
  putHostileTree(kApp + "Documents/hostile", "/var/outside");
  putHostileTree(kLib + "Caches/com.a/hostile", "/var/outside");
  EXPECT_EQ(cli({"reset", "com.a,com.apple.mobilesafari", "clear"}).out,
            "RESET_OK com.a\nRESET_OK com.apple.mobilesafari\n");
  EXPECT_EQ(namesIn("/var"), before);
  EXPECT_EQ(differences(outside, treeAt("/var/outside"), Specials::keep), "") << "followed a link";
}

TEST_F(FreshInstall, KeepsWhatTheFlagsProtect) {
  const std::pair<std::string, std::string> leftBy[] = {
      {"com.a clear", "receipt"},
      {"com.a clear appdata=0", "receipt data snapshots"},
      {"com.a kill sys=0,appdata=0,receipt=1", "data traces"},
      {"com.a clear receipt=1,receipt=0,sys=0,appdata=1", "receipt traces"},
  };
  const std::pair<std::string, const char*> files[] = {
      {kApp + "StoreKit/receipt", "receipt"},
      {kApp + "StoreKit/sandboxReceipt/inside", "receipt"},
      {kApp + "StoreKit/other", ""},
      {kApp + "Library/SplashBoard/Snapshots/a/x.ktx", "snapshots"},
      {kApp + "Library/Saved Application State/y", "snapshots"},
      {kApp + "Library/other", "data"},
      {kGroup + "Library/x", "data"},
      {kLib + "Caches/com.a/x", "traces"},
  };
  putApp("app", "com.a");
  putGroup("group", "group.com.a.x.");
  for (const auto& [reset, left] : leftBy) {
    for (const auto& [file, kind] : files)
      put(file);
    cliLine("reset " + reset);
    for (const auto& [file, kind] : files)
      EXPECT_EQ(exists(file), left.find(kind) != left.npos) << file << " after " << reset;
  }
}

TEST_F(FreshInstall, IsReportedExactlyWhenSomethingWasFound) {
  const std::tuple<std::string, std::string, bool> rows[] = {
      {"/var/empty/", "com.a clear receipt=1", false},
      {kApp, "com.a clear sys=0", true},
      {kApp, "com.a clear appdata=0,receipt=1", false},
      {kApp + "StoreKit/sandboxReceipt", "com.a clear appdata=0,sys=0,receipt=1", true},
      {kGroup, "com.a clear sys=0", true},
      {kLib + "Cookies/com.a.binarycookies", "com.a clear", true},
      {kLib + "BulletinBoard/x/com.a.plist", "com.a clear", true},
      {kLib + "WebKit/WebsiteData/x", "com.apple.mobilesafari clear", false},
      {kLib + "Cookies/Cookies.binarycookies", "com.apple.mobilesafari clear", true},
  };
  for (const auto& [there, reset, found] : rows) {
    runCommand({"sh", "-c", "rm -rf /var/mobile/*"});
    putAll("", there);
    for (const std::string& container : {kApp, kGroup}) {
      if (exists(container)) put(container + kMetadataName, "group.com.a.");
    }
    EXPECT_EQ(cliLine("reset " + reset).status, found ? 0 : 1) << there << reset;
  }
  putLink(kLib + "Caches/com.a", "/nowhere");
  EXPECT_EQ(cliLine("reset com.a clear").status, 1) << "nothing is there";
  putLink(kLib + "Safari/dangling.db", "/nowhere");
  EXPECT_EQ(cliLine("reset com.apple.mobilesafari clear").status, 0) << "its name counts";
  put(kLib + "HTTPStorages/com.a");
  runCommand({"chattr", "+i", kLib + "HTTPStorages/com.a"});
  EXPECT_EQ(cliLine("reset com.a clear").status, 0) << "there, whatever became of it";
}

TEST_F(FreshInstall, ClearsTheKeychainGroupsOfTheFamilies) {
  const std::pair<Names, Names> rows[] = {
      {{"T84QZS65DQ.platformFamily", "group.com.facebook.family", "group.com.facebook.Facebook",
        "group.com.facebook.msysstorage", "T84QZS65DQ.com.facebook.Facebook"},
       {"com.facebook.Facebook", "com.facebook.Messenger", "com.facebook.Orca"}},
      {{"com.facebook.family", "group.com.burbn.instagram", "group.com.instagram.shared",
        "T84QZS65DQ.platformFamily"},
       {"com.burbn.instagram"}},
      {{"group.com.zhiliaoapp.musically"},
       {"com.zhiliaoapp.musically", "com.ss.iphone.ugc.Awemelite"}},
      {{},
       {"com.facebook.orca", "com.facebook.Facebook2", "com.burbn.instagram.x",
        "com.zhiliaoapp.musically.x", "com.ss.iphone.ugc.Ame"}}};
  for (const auto& [groups, bundles] : rows) {
    for (const std::string& bundle : bundles)
      EXPECT_EQ(kcGroupsForBundle(bundle), groups) << bundle;
  }
}

/// Runs `action` among processes of these names, given between commas. Those that are left.
std::string survivors(const std::string& names, const std::function<void()>& action) {
  std::vector<std::pair<std::string, pid_t>> bystanders;
  for (const std::string_view name : splitAt(names, ',')) {
    if (!name.empty()) bystanders.emplace_back(name, startBystander(std::string(name)));
  }
  action();
  std::string left;
  for (const auto& [name, pid] : bystanders) {
    if (endBystander(pid)) left += (left.empty() ? "" : ",") + name;
  }
  return left;
}

TEST_F(FreshInstall, IsDisturbedByNoProcessOfTheAppAndStopsNoOther) {
  const struct {
    std::string_view needle;
    NameMatch match;
    std::string die, live;
  } byName[] = {
      {"instagram", kWhole, "Instagram,INSTAGRAM,Instagram", "instagramX,nstagram,insta"},
      // Names that the kernel cuts alike: the sixteenth character tells.
      {"a.bcd.instagramX", kWhole, "a.bcd.instagramX", "a.bcd.instagram,a.bcd.instagraX"},
      {"com.burbn.instagram", kWhole, "com.burbn.instag,COM.BURBN.INSTAGXYZ", "com.burbn.instaX"},
      {"Safari", kPart, "MobileSafari,xsAFARIx", "Safar,Safax"},
      {"Service", kPart, "", "SafariViewService"},  // beyond the 16 that count
      {"ÉA", kPart, "ÉAb", "éab"},                  // only ASCII letters fold
      {"with blank) S 1", kWhole, "with blank) S 1", "with blank"},
      {"", kPart, "", "instagram"},
  };
  for (const auto& row : byName) {
    const auto kill = [&row] { killProcs(row.needle, row.match); };
    EXPECT_EQ(survivors(row.die + "," + row.live, kill), row.live) << row.needle;
  }
  // By a reset, which gives the system time after it has stopped an app.
  const struct {
    std::string reset;
    int seconds;
    std::string die, live;
  } byReset[] = {
      {"com.burbn.instagram clear", 0, "securityd,secd", "Instagram"},
      {"com.burbn.instagram kill", 1, "securityd,Instagram,com.burbn.instagram", "InstagramX"},
      {"com.unknown.thing kill", 1, "thing", "securityd,secd,com.unknown"},
      {"com.unknown.thing. kill sys=0", 1, "", "thing"},
      {"com.apple.mobilesafari kill sys=0", 1, "mobilesafari,SafariViewService,XsafariX", "secd"},
      {"com.apple.mobilesafari kill", 2, "mobilesafari", ""},
      {"com.apple.mobilesafari clear", 1, "MobileSafari,SafariViewService", "XsafariX"},
      {"com.apple.mobilesafari clear sys=0", 0, "", "MobileSafari,SafariViewService"},
  };
  for (const auto& row : byReset) {
    const auto reset = [&row] {
      int pauses = 0;
      const auto count = [&](const Call& call) { pauses += call.number == SYS_clock_nanosleep; };
      const auto start = std::chrono::steady_clock::now();
      EXPECT_NE(cliLine("reset " + row.reset, ' ', {.atCall = count}).status, 2);
      EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(row.seconds));
      EXPECT_EQ(pauses, row.seconds) << row.reset;
    };
    EXPECT_EQ(survivors(row.die + "," + row.live, reset), row.live) << row.reset;
  }
}

}  // namespace
}  // namespace morvane::test
