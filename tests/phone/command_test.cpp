// What a user would lose: a phone on the desk that behaves as the device does, and a machine that
// stays untouched by what runs on it.

#include "support/command.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "reset/keychain_groups.h"
#include "support/case.h"
#include "support/tree.h"

namespace morvane::test {
namespace {

using Json = nlohmann::json;
using Words = std::vector<std::string>;

class Phone : public Case {
 protected:
  void SetUp() override {
    Case::SetUp();
    dir = caseFolder() + "/phone";
  }

  static Outcome command(Words words, const Words& more = {}, const RunOptions& options = {}) {
    words.insert(words.begin(), MORVANE_PHONE);
    words.insert(words.end(), more.begin(), more.end());
    return runCommand(words, options);
  }
  void make(const Words& options = {"--files", "3"}) {
    const Outcome made = command({"new", dir}, options);
    ASSERT_EQ(made.status, 0) << made;
  }
  [[nodiscard]] Outcome run(const Words& words) const { return command({"run", dir, "--"}, words); }
  [[nodiscard]] Json show() const { return Json::parse(command({"show", dir, "--json"}).out); }

  /// What `show` says of one app.
  [[nodiscard]] static Json& appIn(Json& shown, const std::string& identifier) {
    for (Json& app : shown["apps"]) {
      if (app["identifier"] == identifier) return app;
    }
    ADD_FAILURE() << "not shown: " << identifier;
    return shown["apps"][0];
  }

  std::string dir;
};

/// What `shown` has to be once `app` was reset: the keychain groups in `cleared` are empty, and
/// what `after` shows of the app's own places is right (it has been checked).
Json expectedAfter(Json shown, const Json& app, const Words& cleared) {
  for (Json& other : shown["apps"]) {
    for (const std::string& group : cleared) {
      if (other["keychain"].contains(group)) other["keychain"][group] = Json::object();
    }
    for (Json& group : other["groups"]) {
      for (const Json& own : app["groups"]) {
        if (own["path"] == group["path"]) group = own;  // apps share some
      }
    }
    if (other["identifier"] != app["identifier"]) continue;
    for (const char* own : {"data", "traces", "receipts"})
      other[own] = app[own];
  }
  return shown;
}

size_t occurrences(const std::string& text, const std::string& needle) {
  size_t count = 0;
  for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1))
    ++count;
  return count;
}

TEST_F(Phone, LosesByAResetWhatIsTheAppsAndWithinReachAndNothingElse) {
  make();
  const std::string family = "T84QZS65DQ.platformFamily";
  const std::string facebook = "T84QZS65DQ.com.facebook.Facebook";
  const struct {
    std::string app;
    Words cleared;
    size_t refused;  // groups
  } rows[] = {
      {"com.zhiliaoapp.musically", {}, 2},
      {"org.example.FieldNotesCompanion", {}, 2},
      {"com.apple.mobilesafari", {}, 0},
      {"com.burbn.instagram", {family}, 4},
      {"com.facebook.Facebook", {family, facebook}, 3},
      {"com.facebook.Messenger", {family, facebook, "T84QZS65DQ.com.facebook.Messenger"}, 4},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.app);
    const Json before = show();
    const Outcome reset = run({MORVANE_CLI, "reset", row.app, "clear", "receipt=1"});
    EXPECT_EQ(reset.out, "RESET_OK " + row.app + "\n");
    EXPECT_EQ(occurrences(reset.err, "-> OSStatus -34018\n"), row.refused * 5) << reset.err;
    EXPECT_EQ(occurrences(reset.err, "left=0\n"), row.app.starts_with("com.apple.") ? 0U : 1U);
    Json after = show();
    const Json app = appIn(after, row.app);
    Json places = app["groups"];
    places.push_back(app["data"]);
    for (const Json& place : places)
      EXPECT_TRUE(place["exists"] && place["files"] == 0) << place;
    EXPECT_TRUE(app["traces"].empty() && app["receipts"].empty()) << app;
    EXPECT_EQ(after, expectedAfter(before, app, row.cleared));
  }
}

TEST_F(Phone, RunsTheAppsAndDaemonsThatAResetKills) {
  make({"--files", "0"});
  const std::string names = "cat /proc/[0-9]*/comm";
  const struct {
    std::string app;
    Words killed;
  } rows[] = {
      {"com.burbn.instagram", {"Instagram", "securityd", "secd"}},
      {"com.apple.mobilesafari", {"MobileSafari", "SafariViewServi"}},
      // More than the sixteen characters that the phone keeps, and the fifteen that Linux does.
      {"org.example.FieldNotesCompanion", {"FieldNotesCompa", "securityd", "secd"}},
  };
  for (const auto& row : rows) {
    const Outcome outcome = run({"sh", "-c", names + "; echo ---; \"$@\" >&2; " + names, "sh",
                                 MORVANE_CLI, "reset", row.app, "kill", "sys=1,appdata=0"});
    const size_t middle = outcome.out.find("---");
    ASSERT_NE(middle, std::string::npos) << outcome;
    for (const char* name :
         {"launchd", "SpringBoard", "securityd", "secd", "Facebook", "Messenger", "Instagram",
          "musically", "MobileSafari", "SafariViewServi", "FieldNotesCompa"}) {
      const bool killed = std::find(row.killed.begin(), row.killed.end(), name) != row.killed.end();
      const std::string line = std::string(name) + "\n";
      EXPECT_EQ(occurrences(outcome.out.substr(0, middle), line), 1U) << name;
      EXPECT_EQ(occurrences(outcome.out.substr(middle), line), killed ? 0U : 1U) << name;
    }
  }
}

TEST_F(Phone, IsTheSameForTheSameSeed) {
  const auto tree = [this](const std::string& name, const Words& options) {
    dir = caseFolder() + "/" + name;
    make(options);
    return treeAt(dir + "/var");
  };
  const Words app{"--app", "com.example.app", "--files", "30", "--seed", "7"};
  const Tree first = tree("first", app);
  EXPECT_EQ(differences(first, tree("second", app)), "");
  EXPECT_NE(differences(first, tree("third", {"--app", "com.example.app", "--files", "30"})), "");
  // Everything that a reset or a backup has to do with is there, with its owners.
  dir = caseFolder() + "/first";
  const Json shown = show();
  ASSERT_EQ(shown["apps"].size(), 1U);
  const Json& made = shown["apps"][0];
  EXPECT_EQ(made["identifier"], "com.example.app");
  EXPECT_EQ(made["receipts"].size(), 5U);
  EXPECT_EQ(made["groups"][0]["identifier"], "group.com.example.app");
  EXPECT_EQ(made["keychain"]["group.com.example.app"].size(), KC_CLASSES.size());
  const std::string container = made["data"]["path"].get<std::string>();
  for (const char* entry :
       {"Documents/media/0/0/IMG_0.jpg", "Library/Preferences/com.example.app.plist", "tmp",
        "Library/Caches/com.example.app/Cache.db-wal", "SystemData",
        "Library/SplashBoard/Snapshots", "Library/Caches/com.example.app/Cache.db-shm",
        "Library/Saved Application State", kMetadataName}) {
    const std::string path = dir + container + "/" + entry;
    EXPECT_TRUE(exists(path)) << entry;
    struct stat status = {};
    lstat(path.c_str(), &status);
    EXPECT_EQ(status.st_uid, ownershipIsFree() ? 501U : geteuid()) << entry;
  }
  EXPECT_EQ(contentOf(dir + container + "/" + kMetadataName).substr(0, 8), "bplist00");
}

TEST_F(Phone, IsMadeWholeOrNotAtAll) {
  const std::string full = caseFolder() + "/file";
  put(full, "x");
  const struct {
    Words words;
    int status;
    std::string says;
  } rows[] = {
      {{}, 2, "usage: "},
      {{"call", dir}, 2, "unknown command: call"},
      {{"new"}, 2, "new takes a folder"},
      {{"new", "--help"}, 2, "new takes a folder before any option"},
      {{"new", dir, "--files"}, 2, "--files takes a value"},
      {{"new", dir, "--files", "-1"}, 2, "not a number: -1"},
      {{"new", dir, "--size", "1"}, 2, "unknown option: --size"},
      {{"new", dir, "--app", "../x"}, 2, "not a bundle identifier: ../x"},
      {{"new", dir, "--app", "a.b", "--app", "a.b"}, 2, "named twice: a.b"},
      {{"new", full}, 1, full + " exists already"},
      {{"new", full + "/x"}, 1, "Not a directory"},
      {{"run", dir}, 2, "run takes a phone and a command"},
      {{"run", dir, "true"}, 125, dir + " is not a phone"},
      {{"show", dir}, 1, dir + " is not a phone"},
      {{"show", dir, "--xml"}, 2, "show takes a phone"},
  };
  for (const auto& row : rows) {
    const Outcome outcome = command(row.words);
    EXPECT_EQ(outcome.status, row.status) << outcome;
    EXPECT_NE(outcome.err.find(row.says), std::string::npos) << outcome;
    EXPECT_EQ(outcome.out, "");
  }
  const Words before = namesIn(caseFolder());
  const Outcome stopped = runCommand({"timeout", "--preserve-status", "-s", "INT", "0.7",
                                      MORVANE_PHONE, "new", dir, "--files", "1000000"});
  EXPECT_EQ(stopped, (Outcome{1, "", "morvane_phone: interrupted\n"}));
  EXPECT_EQ(namesIn(caseFolder()), before);
}

TEST_F(Phone, RunsCommandsAsTheyAre) {
  make({"--app", "a.b", "--files", "0"});
  put(caseFolder() + "/text", "no program");
  const struct {
    Words words;
    Outcome outcome;
  } rows[] = {
      {{"sh", "-c", "echo out; echo err >&2; exit 7"}, {7, "out\n", "err\n"}},
      {{"sh", "-c", "kill -KILL $$"}, {128 + 9, "", ""}},
      {{"no-such-command"},
       {127, "", "morvane_phone: cannot run no-such-command: No such file or directory\n"}},
      {{caseFolder() + "/text"},
       {126, "", "morvane_phone: cannot run " + caseFolder() + "/text: Permission denied\n"}},
      {{"sh", "-c", "id -u; pwd; mktemp >/dev/null && ls /var/tmp | wc -l"}, {0, "0\n/\n1\n", ""}},
      {{"--", "true"}, {127, "", "morvane_phone: cannot run --: No such file or directory\n"}},
  };
  RunOptions atRoot;
  atRoot.inChild = [] { (void)!chdir("/"); };
  for (const auto& row : rows) {
    EXPECT_EQ(command({"run", dir, "--"}, row.words, atRoot), row.outcome);
  }
  EXPECT_EQ(runCommand({"sh", "-c", "echo in | \"$0\" run \"$1\" cat", MORVANE_PHONE, dir}).out,
            "in\n");
  const std::string trap = "trap 'echo got it; exit 9' TERM; sleep 20 & wait";
  EXPECT_EQ(runCommand({"timeout", "--foreground", "--preserve-status", "1", MORVANE_PHONE, "run",
                        dir, "sh", "-c", trap}),
            (Outcome{9, "got it\n", ""}));
  // Killed, it takes everything inside along.
  (void)runCommand(
      {"timeout", "--foreground", "-s", "KILL", "1", MORVANE_PHONE, "run", dir, "sleep", "61402"});
  EXPECT_EQ(runCommand({"sh", "-c", "sleep 0.2; cat /proc/[0-9]*/cmdline"}).out.find("61402"),
            std::string::npos);
}

TEST_F(Phone, LetsNothingOutsideBeTouched) {
  make({"--app", "a.b", "--files", "0"});
  const Tree before = treeAt("/etc");
  put("/var/outside", "x");
  for (const char* attempt :
       {"touch /etc/morvane", "echo x >\"$0/phone.plist\"", "ls /var/outside",
        "mount -o remount,rw /", "umount /var", "echo 1 >/proc/sys/kernel/sysrq",
        "mknod /var/disk b 7 0 && cat /var/disk", "unshare -m true", "ls /dev/pts/0"}) {
    EXPECT_NE(run({"sh", "-c", attempt, dir}).status, 0) << attempt;
  }
  EXPECT_EQ(run({"sh", "-c", "kill -9 -1; echo alive; exit 3"}), (Outcome{3, "alive\n", ""}));
  EXPECT_EQ(differences(before, treeAt("/etc")), "");
  EXPECT_TRUE(exists("/var/outside"));
}

TEST_F(Phone, WorksForAnOrdinaryUser) {
  if (!ownershipIsFree()) SKIP_OR_FAIL("only root can become another user");
  const std::string home = caseFolder() + "/home";
  putFolder(home);
  ASSERT_EQ(chown(home.c_str(), 65534, 65534), 0);
  dir = home + "/phone";
  const auto asUser = [](Words words) {
    const Words user{"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", MORVANE_PHONE};
    words.insert(words.begin(), user.begin(), user.end());
    return runCommand(words);
  };
  const Outcome made = asUser({"new", dir, "--files", "1"});
  EXPECT_EQ(made.status, 0);
  EXPECT_NE(made.err.find("not root: files keep your user"), std::string::npos) << made;
  const Outcome reset = asUser({"run", dir, MORVANE_CLI, "reset", "com.burbn.instagram", "clear"});
  EXPECT_EQ(reset.out, "RESET_OK com.burbn.instagram\n") << reset;
  EXPECT_NE(reset.err.find("left=0\n"), std::string::npos);
  EXPECT_EQ(asUser({"run", dir, "sh", "-c", "id -u; touch /etc/x || exit 4"}).out, "0\n");
}

TEST_F(Phone, SaysWhatToAllowWhereNamespacesAreNotPermitted) {
  make({"--app", "a.b", "--files", "0"});
  const std::string forbid =
      "for kind in user pid; do echo 0 >/proc/sys/user/max_${kind}_namespaces; done; exec \"$@\"";
  const Outcome outcome = runCommand({"unshare", "--user", "--map-root-user", "sh", "-c", forbid,
                                      "sh", MORVANE_PHONE, "run", dir, "echo", "ran"});
  EXPECT_EQ(outcome.status, 125);
  EXPECT_EQ(outcome.out, "");
  EXPECT_NE(outcome.err.find("cannot make private namespaces: "), std::string::npos) << outcome;
  EXPECT_NE(outcome.err.find("allow it with: sysctl user.max_user_namespaces="), std::string::npos);
}

TEST_F(Phone, IsShownAtAGlance) {
  make({"--app", "com.burbn.instagram", "--files", "3"});
  ASSERT_EQ(run({MORVANE_CLI, "backup", "com.burbn.instagram", "daily"}).status, 0);
  const std::string text = command({"show", dir}).out;
  for (const char* line :
       {"phone of seed 1 with 1 app\n", "\ncom.burbn.instagram  (Instagram)\n",
        "T84QZS65DQ.platformFamily  genp 2 inet 1 keys 2 cert 2 idnt 1\n", "  receipts  5\n",
        "group.com.burbn.instagram  genp 2 inet 1 keys 2 cert 2 idnt 1  (not entitled)\n",
        "  traces    8 in Caches, HTTPStorages, WebKit, SpringBoard, Cookies, BulletinBoard\n",
        "\nbackups\n  daily.morvane  ", "  com.burbn.instagram\n"}) {
    EXPECT_NE(text.find(line), std::string::npos) << line << "\n" << text;
  }
  // The figures are those of the disk.
  const Json shown = show();
  const Tree container = treeAt(dir + shown["apps"][0]["data"]["path"].get<std::string>());
  int files = 0;
  for (const auto& [path, description] : container)
    files += description.starts_with("file") ? 1 : 0;
  EXPECT_EQ(shown["apps"][0]["data"]["files"], files - 1) << "all but the metadata file";
  EXPECT_EQ(shown["backups"][0]["apps"], Json::array({"com.burbn.instagram"}));
  put(dir + "/var/Keychains/keychain-2.db", "no database, whatever it says");
  EXPECT_EQ(show()["keychainProblem"], "is locked or damaged");
}

}  // namespace
}  // namespace morvane::test
