// What a user would lose: a phone on the desk that behaves as the device does, and a machine that
// stays untouched by what runs on it.

#include "support/command.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <nlohmann/json.hpp>

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

  static Outcome command(Words words, const Words& more = {}) {
    words.insert(words.begin(), MORVANE_PHONE);
    words.insert(words.end(), more.begin(), more.end());
    return runCommand(words);
  }
  void make(const Words& options) {
    const Outcome made = command({"new", dir}, options);
    ASSERT_EQ(made.status, 0) << made;
  }
  [[nodiscard]] Outcome run(const Words& words) const { return command({"run", dir, "--"}, words); }
  [[nodiscard]] Json show() const { return Json::parse(command({"show", dir, "--json"}).out); }

  std::string dir;
};

size_t occurrences(const std::string& text, const std::string& needle) {
  size_t count = 0;
  for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1))
    ++count;
  return count;
}

TEST_F(Phone, LosesByAResetWhatIsTheAppsAndWithinReachAndNothingElse) {
  make({"--files", "3"});
  Json expected = show();
  // None of these has a folder in common with another app; the keychain group cleared is.
  for (const auto& [identifier, cleared, refused] :
       {std::tuple{"com.apple.mobilesafari", "", 0U},
        {"com.zhiliaoapp.musically", "", 2U},
        {"com.burbn.instagram", "T84QZS65DQ.platformFamily", 4U}}) {
    const Outcome reset = run({MORVANE_CLI, "reset", identifier, "clear", "receipt=1"});
    EXPECT_EQ(reset.out, std::string("RESET_OK ") + identifier + "\n");
    EXPECT_EQ(occurrences(reset.err, "-> OSStatus -34018\n"), refused * 5) << reset.err;
    const Json after = show();
    for (size_t i = 0; i < after["apps"].size(); ++i) {
      const Json& app = after["apps"][i];
      Json& before = expected["apps"][i];
      if (before["keychain"].contains(cleared)) before["keychain"][cleared] = Json::object();
      if (app["identifier"] != identifier) continue;
      for (const char* own : {"data", "groups", "traces", "receipts"})
        before[own] = app[own];
      Json places = app["groups"];
      places.push_back(app["data"]);
      for (const Json& place : places)
        EXPECT_TRUE(place["exists"] && place["files"] == 0) << place;
      EXPECT_TRUE(app["traces"].empty() && app["receipts"].empty()) << app;
    }
    EXPECT_EQ(after, expected) << identifier;
  }
}

TEST_F(Phone, RunsTheAppsAndDaemonsThatAResetKills) {
  make({"--files", "0"});
  const std::pair<std::string, Words> rows[] = {
      {"com.apple.mobilesafari", {"MobileSafari", "SafariViewServi"}},
      // More than the sixteen characters that the phone keeps, and the fifteen that Linux does.
      {"org.example.FieldNotesCompanion", {"FieldNotesCompa", "securityd", "secd"}},
  };
  const std::string names = "cat /proc/[0-9]*/comm";
  for (const auto& [app, killed] : rows) {
    // A program that starts is given its name a moment after its starter goes on.
    const std::string script = "sleep 0.2; " + names + "; \"$@\" >&2; " + names;
    const Outcome outcome =
        run({"sh", "-c", script, "sh", MORVANE_CLI, "reset", app, "kill", "sys=1,appdata=0"});
    for (const char* name :
         {"launchd", "SpringBoard", "securityd", "secd", "Facebook", "Messenger", "Instagram",
          "musically", "MobileSafari", "SafariViewServi", "FieldNotesCompa"}) {
      const bool once = std::count(killed.begin(), killed.end(), name) > 0;
      EXPECT_EQ(occurrences("\n" + outcome.out, "\n" + std::string(name) + "\n"), once ? 1U : 2U)
          << name;
    }
  }
}

TEST_F(Phone, IsTheSameForTheSameSeed) {
  const auto tree = [this](const std::string& name, const Words& more = {}) {
    dir = caseFolder() + "/" + name;
    Words options{"--app", "com.example.app", "--files", "30"};
    options.insert(options.end(), more.begin(), more.end());
    make(options);
    return treeAt(dir + "/var");
  };
  const Tree first = tree("first");
  EXPECT_NE(differences(first, tree("third", {"--seed", "7"})), "");
  EXPECT_EQ(differences(first, tree("second")), "");
  const Json app = show()["apps"][0];
  const std::string container = dir + app["data"]["path"].get<std::string>();
  struct stat status = {};
  lstat((container + "/Documents/media/0/0/IMG_0.jpg").c_str(), &status);
  EXPECT_EQ(status.st_uid, ownershipIsFree() ? 501U : geteuid());
  // What is shown are the figures of the disk.
  int files = 0;
  for (const auto& [path, description] : treeAt(container))
    files += description.starts_with("file") ? 1 : 0;
  EXPECT_EQ(app["data"]["files"], files - 1) << "all but the metadata file";
  put(dir + "/var/Keychains/keychain-2.db", "no database, whatever it says");
  EXPECT_EQ(show()["keychainProblem"], "is locked or damaged");
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
      {{"new", "--help"}, 2, "new takes a folder before any option"},
      {{"new", dir, "--files"}, 2, "--files takes a value"},
      {{"new", dir, "--files", "-1"}, 2, "not a number: -1"},
      {{"new", dir, "--app", "../x"}, 2, "not a bundle identifier: ../x"},
      {{"new", dir, "--app", "a.b", "--app", "a.b"}, 2, "named twice: a.b"},
      {{"new", full}, 1, full + " exists already"},
      {{"run", dir}, 2, "run takes a phone and a command"},
      {{"run", dir, "true"}, 125, dir + " is not a phone"},
      {{"show", dir}, 1, dir + " is not a phone"},
  };
  for (const auto& row : rows) {
    const Outcome outcome = command(row.words);
    EXPECT_EQ(outcome.status, row.status) << outcome;
    EXPECT_NE(outcome.err.find(row.says), std::string::npos) << outcome;
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
  const std::string cannot = "morvane_phone: cannot run ";
  const std::pair<Words, Outcome> rows[] = {
      {{"sh", "-c", "echo out; echo err >&2; exit 7"}, {7, "out\n", "err\n"}},
      {{"sh", "-c", "kill -KILL $$"}, {128 + 9, "", ""}},
      {{"none"}, {127, "", cannot + "none: No such file or directory\n"}},
      {{caseFolder() + "/text"}, {126, "", cannot + caseFolder() + "/text: Permission denied\n"}},
      {{"sh", "-c", "id -u; mktemp >/dev/null && ls /var/tmp | wc -l"}, {0, "0\n1\n", ""}},
      {{"sh", "-c", "kill -9 -1; echo alive; exit 3"}, {3, "alive\n", ""}},
  };
  for (const auto& [words, outcome] : rows)
    EXPECT_EQ(run(words), outcome);
  const auto stopped = [&](Words words, const Words& inside) {
    words.insert(words.end(), {"1", MORVANE_PHONE, "run", dir});
    words.insert(words.end(), inside.begin(), inside.end());
    return runCommand(words);
  };
  EXPECT_EQ(stopped({"timeout", "--foreground", "--preserve-status"},
                    {"sh", "-c", "trap 'echo got it; exit 9' TERM; sleep 20 & wait"}),
            (Outcome{9, "got it\n", ""}));
  // Killed, it takes everything inside along.
  (void)stopped({"timeout", "--foreground", "-s", "KILL"}, {"sleep", "61402"});
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
  EXPECT_NE(outcome.err.find("allow it with: sysctl user.max_user_namespaces="), std::string::npos);
}

}  // namespace
}  // namespace morvane::test
