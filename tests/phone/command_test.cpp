// What a user would lose: a phone on the desk that behaves as the device does, and a machine that
// stays untouched by what runs on it.

#include "support/command.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "support/case.h"
#include "support/tree.h"

namespace morvane::test {
namespace {

using namespace std::literals;
using Json = nlohmann::json;
using Words = std::vector<std::string>;

const std::string kReset = "'" MORVANE_CLI "' reset ";

class Phone : public Case {
 protected:
  void SetUp() override {
    Case::SetUp();
    dir = caseFolder() + "/phone";
  }

  [[nodiscard]] Outcome command(Words words) const {
    words.insert(words.begin(), MORVANE_PHONE);
    words.insert(words.begin(), starter.begin(), starter.end());
    return runCommand(words);
  }
  Outcome make(Words options = {"--app", "a.b", "--files", "0"}) {
    options.insert(options.begin(), {"new", dir});
    const Outcome made = command(options);
    EXPECT_EQ(made.status, 0) << made;
    return made;
  }
  [[nodiscard]] Outcome shell(const std::string& script) const {
    return command({"run", dir, "sh", "-c", script});
  }
  [[nodiscard]] Json show() const { return Json::parse(command({"show", dir, "--json"}).out); }

  std::string dir;
  Words starter;  // runs the command; nothing: directly
};

TEST_F(Phone, LosesByAResetWhatIsTheAppsAndWithinReachAndNothingElse) {
  make({"--files", "3"});
  Json expected = show();
  const Json empty{{"files", 0}, {"bytes", 0}};
  // None of these has a folder in common with another app; the keychain group cleared is.
  for (const auto& [identifier, cleared, refused] :
       {std::tuple{"com.apple.mobilesafari"s, "", "0\n"},
        {"com.zhiliaoapp.musically", "", "10\n"},
        {"com.burbn.instagram", "T84QZS65DQ.platformFamily", "20\n"}}) {
    for (Json& app : expected["apps"]) {
      if (app["keychain"].contains(cleared)) app["keychain"][cleared] = Json::object();
      if (app["identifier"] != identifier) continue;
      EXPECT_FALSE(app["data"]["files"] == 0 || app["traces"].empty() || app["receipts"].empty());
      app["data"].update(empty);
      for (Json& group : app["groups"])
        group.update(empty);
      app["traces"] = app["receipts"] = Json::array();
    }
    const std::string log = " 2>/var/tmp/log; grep -c -e '-> OSStatus -34018$' /var/tmp/log";
    EXPECT_EQ(shell(kReset + identifier + " clear receipt=1" + log).out,
              "RESET_OK " + identifier + "\n" + refused);
    EXPECT_EQ(show(), expected) << identifier;
  }
  put(dir + "/var/Keychains/keychain-2.db", "no database, whatever it says");
  EXPECT_EQ(show()["keychainProblem"], "is locked or damaged");
}

TEST_F(Phone, RunsTheAppsAndDaemonsThatAResetKills) {
  make({"--files", "0"});
  const std::string names =
      "cat /proc/[0-9]*/comm >/var/tmp/names; LC_ALL=C sort /var/tmp/names | paste -sd ' '; ";
  const std::string apps = "org.example.FieldNotesCompanion,com.apple.mobilesafari";
  // A program that starts is given its name a moment after its starter goes on.
  EXPECT_EQ(shell("sleep 0.2; " + names + kReset + apps + " kill appdata=0 >&2; " + names).out,
            "Facebook FieldNotesCompa Instagram Messenger MobileSafari SafariViewServi SpringBoard "
            "launchd musically secd securityd sh\n"
            "Facebook Instagram Messenger SpringBoard launchd musically sh\n");
}

TEST_F(Phone, IsTheSameForTheSameSeed) {
  std::vector<Tree> trees;
  for (const char* seed : {"1", "1", "7"}) {
    dir += seed;
    make({"--app", "com.example.app", "--files", "30", "--seed", seed});
    trees.push_back(treeAt(dir + "/var"));
  }
  EXPECT_EQ(differences(trees[0], trees[1]), "");
  EXPECT_NE(differences(trees[1], trees[2]), "");
  const std::string owner = ownershipIsFree() ? " 501:501 " : " 0:0 ";
  EXPECT_NE(trees[0]["mobile/Library/SMS/sms.db"].find(owner), std::string::npos);
}

TEST_F(Phone, SaysWhatIsWrongAndIsMadeWholeOrNotAtAll) {
  make();
  const std::tuple<Words, int, std::string> rows[] = {
      {{"new", "--help"}, 2, "new takes a folder before any option"},
      {{"new", dir, "--files", "-1"}, 2, "not a number: -1"},
      {{"new", dir, "--app", "../x"}, 2, "not a bundle identifier: ../x"},
      {{"new", dir, "--app", "a.b", "--app", "a.b"}, 2, "named twice: a.b"},
      {{"new", dir}, 1, dir + " exists already"},
      {{"run", dir}, 2, "run takes a phone and a command"},
      {{"run", "/etc", "true"}, 125, "/etc is not a phone"},
      {{"run", dir, "none"}, 127, "cannot run none: No such file or directory"},
      {{"run", dir, "--", "/etc"}, 126, "cannot run /etc: Permission denied"},
  };
  for (const auto& [words, status, says] : rows) {
    const Outcome outcome = command(words);
    EXPECT_EQ(outcome.status, status) << outcome;
    EXPECT_NE(outcome.err.find(says), std::string::npos) << outcome;
  }
  const Words before = namesIn(caseFolder());
  starter = {"timeout", "--preserve-status", "-s", "INT", "0.7"};
  EXPECT_EQ(command({"new", dir + "2", "--files", "1000000"}),
            (Outcome{1, "", "morvane_phone: interrupted\n"}));
  EXPECT_EQ(namesIn(caseFolder()), before);
}

TEST_F(Phone, RunsCommandsAsTheyAre) {
  make();
  EXPECT_EQ(shell("echo out; echo err >&2; exit 7"), (Outcome{7, "out\n", "err\n"}));
  EXPECT_EQ(shell("kill -KILL $$"), (Outcome{128 + 9, "", ""}));
  EXPECT_EQ(shell("id -u; mktemp >/dev/null && ls /var/tmp | wc -l"), (Outcome{0, "0\n1\n", ""}));
  EXPECT_EQ(shell("kill -9 -1; echo alive; exit 3"), (Outcome{3, "alive\n", ""}));
  starter = {"timeout", "--foreground", "--preserve-status", "1"};
  EXPECT_EQ(shell("trap 'echo got it; exit 9' TERM; sleep 20 & wait"),
            (Outcome{9, "got it\n", ""}));
  // Killed, it takes everything inside along.
  starter = {"timeout", "--foreground", "-s", "KILL", "1"};
  (void)command({"run", dir, "sleep", "61402"});
  EXPECT_EQ(runCommand({"sh", "-c", "sleep 0.2; cat /proc/[0-9]*/cmdline"}).out.find("61402"),
            std::string::npos);
}

TEST_F(Phone, LetsNothingOutsideBeTouched) {
  make();
  const Tree before = treeAt("/etc");
  put("/var/outside", "x");
  for (const std::string& attempt :
       Words{"touch /etc/morvane", "echo x >'" + dir + "/phone.plist'", "ls /var/outside",
             "mount -o remount,rw /", "umount /var", "echo 1 >/proc/sys/vm/drop_caches",
             "mknod /var/disk b 7 0 && cat /var/disk", "unshare -m true", "ls /dev/pts/0"}) {
    EXPECT_NE(shell(attempt).status, 0) << attempt;
  }
  EXPECT_EQ(differences(before, treeAt("/etc")), "");
  EXPECT_TRUE(exists("/var/outside"));
}

TEST_F(Phone, WorksForAnOrdinaryUser) {
  if (!ownershipIsFree()) SKIP_OR_FAIL("only root can become another user");
  ASSERT_EQ(chown(caseFolder().c_str(), 65534, 65534), 0);
  starter = {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
  EXPECT_NE(make({"--files", "1"}).err.find("not root: files keep your user"), std::string::npos);
  const Outcome reset = shell(kReset + "com.burbn.instagram clear");
  EXPECT_EQ(reset.out, "RESET_OK com.burbn.instagram\n") << reset;
  EXPECT_NE(reset.err.find("left=0\n"), std::string::npos);
  EXPECT_EQ(shell("id -u; touch /etc/x || exit 4").out, "0\n");
}

TEST_F(Phone, SaysWhatToAllowWhereNamespacesAreNotPermitted) {
  make();
  const std::string forbid =
      "for kind in user pid; do echo 0 >/proc/sys/user/max_${kind}_namespaces; done; exec \"$@\"";
  starter = {"unshare", "--user", "--map-root-user", "sh", "-c", forbid, "sh"};
  const Outcome outcome = shell("echo ran");
  EXPECT_EQ(outcome.status, 125);
  EXPECT_NE(outcome.err.find("allow it with: sysctl user.max_user_namespaces="), std::string::npos);
}

}  // namespace
}  // namespace morvane::test
