// What a user would lose: an account, to traces that give the "fresh install" away; or somebody
// else's data or running program, to a reset that reaches too far.

#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <chrono>

#include "reset/keychain_groups.h"
#include "support/case.h"
#include "support/command.h"
#include "support/tree.h"
#include "text/pieces.h"

namespace morvane::test {
namespace {

using Names = std::vector<std::string>;

const std::string kLib = "/var/mobile/Library/";
const std::string kApp = "/var/mobile/Containers/Data/Application/app/";
const std::string kGroup = "/var/mobile/Containers/Shared/AppGroup/group/";

/// Makes these files, and folders where a name ends in "/", in `folder`. Braces are the shell's.
void putAll(const std::string& folder, const std::string& names) {
  shell("mkdir -p " + folder + "; cd /" + folder + "; for name in " + names +
        "; do mkdir -p $(dirname $name.); [ -d $name ] || echo x >$name; done");
}

class FreshInstall : public Case {};

TEST_F(FreshInstall, LeavesNothingOfTheAppAndEverythingElse) {
  const std::string perApp = " {Caches,HTTPStorages,WebKit,SpringBoard/PushStore,Cookies}/";
  const std::string kept =
      "BulletinBoard/{com.ab.plist,xcom.a,COM.A,x/{com,y/}} WebKit/WebsiteData/ "
      "Safari/{Bookmarks.plist,sub/Nested.db}" +
      perApp + "{com.ab,com.a.b,xcom.a,com.a.binarycookies.x,COM.A}";
  const std::string gone =
      "BulletinBoard/{com.a,com.a.plist,x/{com.a.b/y/z,y/com.a.,com.a/com.a.plist}} "
      "Safari/{History.db,History.db-wal,x.dbfolder/inside,.db} Cookies/Cookies.binarycookies "
      "WebKit/WebsiteData/any/site" +
      perApp + "com.a{,.binarycookies,.pushstore}/deep/file";
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
  EXPECT_EQ(differences(outside, treeAt("/var/outside")), "") << "followed a link";
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
    shell("rm -rf /var/mobile/*");
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

TEST_F(FreshInstall, IsDisturbedByNoProcessOfTheAppAndStopsNoOther) {
  // A reset, the seconds that it gives the system after it has stopped an app, and who dies by it
  // and who does not. Of a name 16 characters count, one more than the kernel keeps.
  const std::tuple<std::string, int, std::string, std::string> rows[] = {
      {"com.burbn.instagram clear", 0, "securityd,secd", "Instagram"},
      {"com.burbn.instagram kill", 1, "securityd,Instagram,INSTAGRAM,COM.BURBN.INSTAGXYZ",
       "InstagramX,nstagram,com.burbn.instaX"},
      {"a.bcd.instagramX kill", 1, "instagramx,a.bcd.instagramX",
       "a.bcd.instagram,a.bcd.instagraX"},
      {"com.unknown.thing kill", 1, "thing", "securityd,secd,com.unknown,thing) S 1"},
      {"com.unknown.thing. kill sys=0", 1, "", "thing"},
      {"com.apple.mobilesafari kill sys=0", 1, "mobilesafari,SafariViewService,XsafariX",
       "secd,Safar,beyond 16: Safari"},
      {"com.apple.mobilesafari kill", 2, "mobilesafari", ""},
      {"com.apple.mobilesafari clear", 1, "MobileSafari,SafariViewService", "XsafariX"},
      {"com.apple.mobilesafari clear sys=0", 0, "", "MobileSafari,SafariViewService"},
  };
  for (const auto& [reset, seconds, die, live] : rows) {
    std::vector<std::pair<std::string, pid_t>> bystanders;
    const std::string names = die + "," + live;
    for (const std::string_view name : splitAt(names, ',')) {
      if (!name.empty()) bystanders.emplace_back(name, startBystander(std::string(name)));
    }
    int pauses = 0;
    const auto count = [&](const Call& call) { pauses += call.number == SYS_clock_nanosleep; };
    const auto start = std::chrono::steady_clock::now();
    EXPECT_NE(cliLine("reset " + reset, ' ', count).status, 2);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(seconds));
    EXPECT_EQ(pauses, seconds) << reset;
    std::string left;
    for (const auto& [name, pid] : bystanders) {
      if (endBystander(pid)) left += (left.empty() ? "" : ",") + name;
    }
    EXPECT_EQ(left, live) << reset;
  }
}

}  // namespace
}  // namespace morvane::test
