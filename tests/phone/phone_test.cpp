// What a user would lose: a phone on the desk that behaves as the device does, a machine that stays
// untouched by what runs on it, the sign-ins of apps that were not named, and a true "left=0".

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "locate/containers.h"
#include "phone/keychain_writer.h"
#include "phone/record_writer.h"
#include "platform/keychain.h"
#include "reset/keychain_groups.h"
#include "support/case.h"
#include "support/command.h"
#include "support/tree.h"

namespace morvane::test {
namespace {

using namespace platform;  // NOLINT(google-build-using-namespace): under test here
using namespace std::literals;
using phone::kKeychainPath;
using Json = nlohmann::json;
using Words = std::vector<std::string>;

const std::string kReset = "'"s + kCli + "' reset ";

class Phone : public Case {
 protected:
  [[nodiscard]] Outcome command(Words words) const {
    words.insert(words.begin(), tool);
    words.insert(words.begin(), starter.begin(), starter.end());
    return runCommand(words);
  }
  void make(Words options = {"--app", "a.b", "--files", "0"}) {
    dir = caseFolder() + "/phone" + std::to_string(++phones);
    options.insert(options.begin(), {"new", dir});
    ASSERT_EQ(command(options).status, 0);
  }
  [[nodiscard]] Outcome shell(const std::string& script) const {
    return command({"run", dir, "sh", "-c", script});
  }
  [[nodiscard]] Json show() const { return Json::parse(command({"show", dir, "--json"}).out); }

  std::string dir;
  int phones = 0;
  Words starter;  // runs the command; nothing: directly
  std::string tool = kPhone;
};

TEST_F(Phone, LosesByAResetWhatIsTheAppsAndWithinReachAndNothingElse) {
  make({"--files", "3"});
  Json expected = show();
  // None of these has a folder in common with another app; the keychain group cleared is.
  for (const auto& [identifier, cleared, refused] :
       {std::tuple{"com.apple.mobilesafari"s, "", "0\n"},
        {"com.zhiliaoapp.musically", "", "10\n"},
        {"com.burbn.instagram", "T84QZS65DQ.platformFamily", "20\n"}}) {
    for (Json& app : expected["apps"]) {
      if (app["keychain"].contains(cleared)) app["keychain"][cleared] = Json::object();
      if (app["identifier"] != identifier) continue;
      EXPECT_FALSE(app["data"]["files"] == 0 || app["traces"].empty() || app["receipts"].empty());
      app["data"]["files"] = app["data"]["bytes"] = 0;
      for (Json& group : app["groups"])
        group["files"] = group["bytes"] = 0;
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
  EXPECT_EQ(shell(names + kReset + apps + " kill appdata=0 >&2; " + names).out,
            "Facebook FieldNotesCompa Instagram Messenger MobileSafari SafariViewServi SpringBoard "
            "launchd musically secd securityd sh\n"
            "Facebook Instagram Messenger SpringBoard launchd musically sh\n");
}

TEST_F(Phone, IsTheSameForTheSameSeed) {
  std::vector<Tree> trees;
  for (const char* seed : {"1", "1", "7"}) {
    make({"--app", "com.example.app", "--files", "30", "--seed", seed});
    trees.push_back(treeAt(dir + "/var"));
  }
  EXPECT_EQ(differences(trees[0], trees[1]), "");
  EXPECT_NE(differences(trees[1], trees[2]), "");
  EXPECT_EQ(trees[0]["mobile"].find(" 501:501 ") != std::string::npos, ownershipIsFree());
}

TEST_F(Phone, SaysWhatIsWrongAndIsMadeWholeOrNotAtAll) {
  make();
  const Words before = namesIn(caseFolder());
  const std::tuple<Words, int, std::string> rows[] = {
      {{"new", dir + "2", "--files", "-1"}, 2, "not a number: -1"},
      {{"new", dir + "2", "--app", "../x"}, 2, "not a bundle identifier: ../x"},
      {{"new", dir}, 1, dir + " exists already"},
      {{"run", "/etc", "true"}, 125, "/etc is not a phone"},
      {{"run", dir, "none"}, 127, "cannot run none: No such file or directory"},
      {{"run", dir, "--", "/etc"}, 126, "cannot run /etc: Permission denied"},
  };
  for (const auto& [words, status, says] : rows) {
    const Outcome outcome = command(words);
    EXPECT_TRUE(outcome.status == status && outcome.err.find(says) != says.npos) << outcome;
  }
  starter = {"timeout", "--preserve-status", "-s", "INT", "0.7"};
  EXPECT_EQ(command({"new", dir + "2", "--files", "1000000"}),
            (Outcome{1, "", "morvane_phone: interrupted\n"}));
  EXPECT_EQ(namesIn(caseFolder()), before);
}

TEST_F(Phone, RunsCommandsAsTheyAre) {
  make();
  EXPECT_EQ(shell("id -u; mktemp >/var/x && ls /var/tmp | wc -l; echo err >&2; kill -9 -1; exit 7"),
            (Outcome{7, "0\n1\n", "err\n"}));
  EXPECT_EQ(shell("kill -KILL $$"), (Outcome{128 + 9, "", ""}));
  starter = {"timeout", "--foreground", "--preserve-status", "1"};
  EXPECT_EQ(shell("trap 'echo got; exit 9' TERM; sleep 20 & wait"), (Outcome{9, "got\n", ""}));
  // Killed, it takes everything inside along.
  starter = {"timeout", "--foreground", "-s", "KILL", "1"};
  (void)command({"run", dir, "sleep", "61402"});
  const char* gone =
      "for i in $(seq 50); do grep -q 6140[2] /proc/*/cmdline || exit 0; sleep 0.2; done; exit 1";
  EXPECT_EQ(runCommand({"sh", "-c", gone}).status, 0);
}

TEST_F(Phone, LetsNothingOutsideBeTouched) {
  make();
  put("/var/outside");
  for (const std::string& attempt :
       Words{"touch /etc/morvane", "echo x >'" + dir + "/phone.plist'", "ls /var/outside",
             "mount -o remount,rw /", "umount /var", "echo 1 >/proc/sys/vm/drop_caches",
             "mknod /var/disk b 7 0 && cat /var/disk", "unshare -m true", "ls /dev/pts/0"}) {
    EXPECT_NE(shell(attempt).status, 0) << attempt;
  }
}

TEST_F(Phone, WorksForAnOrdinaryUser) {
  if (!ownershipIsFree()) SKIP_OR_FAIL("only root can become another user");
  ASSERT_EQ(chown(caseFolder().c_str(), 65534, 65534), 0);
  starter = {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
  // The tools may have been built where only root may go.
  tool = caseFolder() + "/morvane_phone";
  const std::string cli = caseFolder() + "/morvane_cli";
  std::filesystem::copy_file(kPhone, tool);
  std::filesystem::copy_file(kCli, cli);
  make({"--files", "1"});
  const std::string log = " clear 2>&1 | grep -o -e left=.* -e ^RESET.*";
  EXPECT_EQ(shell("'" + cli + "' reset com.burbn.instagram" + log).out,
            "left=0\nRESET_OK com.burbn.instagram\n");
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

// --- What the phone stores

constexpr const char* kTeam = "T84QZS65DQ";
constexpr const char* kFamily = "T84QZS65DQ.platformFamily";
constexpr const char* kMessenger = "T84QZS65DQ.com.facebook.Messenger";

using Stores = Case;

/// Adds two generic passwords and one of each other class to each group.
void fill(const Words& groups) {
  putFolder("/var/Keychains");
  phone::KeychainWriter keychain;
  ASSERT_TRUE(keychain.open(kKeychainPath));
  for (const std::string& group : groups) {
    for (const std::string label : {"genp", "genp again", "inet", "keys", "cert", "idnt"})
      ASSERT_TRUE(keychain.add(label.substr(0, 4), group, label));
  }
}

void change(const std::string& sql) {
  phone::SqliteWriter file;
  ASSERT_TRUE(file.open(kKeychainPath) && file.run(sql)) << sql;
}

/// How many items of each class are in the group of the family and in Messenger's.
std::string counts() {
  std::string words;
  for (const char* group : {kFamily, kMessenger}) {
    for (const ItemClass itemClass : KC_CLASSES)
      words += std::to_string(listKeychainItems(itemClass, group).count) + " ";
  }
  return words;
}

TEST_F(Stores, ShowAndLoseWhatTheToolIsEntitledToAndNothingElse) {
  const std::string likeFamily = "T84QZS65DQ.platformfamily";
  const auto genp = ItemClass::genericPassword;
  putFolder("/var/Keychains");
  EXPECT_EQ(deleteKeychainItems(genp, kFamily), kKeychainItemNotFound);
  EXPECT_EQ(namesIn("/var/Keychains"), Words()) << "a missing keychain is empty and not made";
  fill({kFamily, kMessenger, likeFamily});
  change("CREATE TRIGGER more AFTER DELETE ON genp BEGIN DELETE FROM inet; END");
  EXPECT_EQ(deleteKeychainItems(genp, likeFamily), kKeychainMissingEntitlement);
  EXPECT_EQ(listKeychainItems(genp, likeFamily).status, kKeychainMissingEntitlement);
  EXPECT_EQ(counts(), "2 1 2 2 1 2 1 2 2 1 ") << "an identity's halves are a key and a certificate";
  EXPECT_EQ(deleteKeychainItems(ItemClass::identity, kFamily), 0);
  EXPECT_EQ(counts(), "2 1 1 1 0 2 1 2 2 1 ") << "both its halves go, and nothing but them";
  EXPECT_EQ(deleteKeychainItems(genp, kFamily), 0);
  EXPECT_EQ(deleteKeychainItems(genp, kFamily), kKeychainItemNotFound);
  EXPECT_EQ(counts(), "0 1 1 1 0 2 1 2 2 1 ") << "the file's own rules do not count";
  change("UPDATE genp SET agrp = 'T84QZS65DQ.platformFamily' WHERE agrp LIKE '%.platformfamily'");
  change("UPDATE keys SET kcls = 0 WHERE kcls = 1 AND agrp = 'T84QZS65DQ.com.facebook.Messenger'");
  EXPECT_EQ(counts(), "2 1 1 1 0 2 1 2 2 0 ") << "other letters are kept; a public key is not it";
  change("UPDATE keys SET kcls = 1, agrp = 'T84QZS65DQ.platformFamily'");
  EXPECT_EQ(counts(), "2 1 5 1 0 2 1 0 2 0 ") << "nor does the key of another group";
}

TEST_F(Stores, ThatAreDamagedAreAStatus) {
  const auto expectUnusable = [] {
    const auto listed = listKeychainItems(ItemClass::genericPassword, std::nullopt);
    EXPECT_EQ(std::pair(listed.status, listed.count), std::pair(-25291, 0UL));
    EXPECT_EQ(deleteKeychainItems(ItemClass::genericPassword, kFamily), -25291);
    std::filesystem::remove(kKeychainPath);
  };
  fill({kFamily});
  std::filesystem::resize_file(kKeychainPath, 5000);
  expectUnusable();
  change("CREATE VIEW genp AS SELECT 'T84QZS65DQ.platformFamily' AS agrp");
  expectUnusable();
  ASSERT_EQ(mkfifo(kKeychainPath, 0600), 0);
  expectUnusable();
}

TEST_F(Stores, ThatAreLockedAreReportedAndCountedAsLeft) {
  fill({kFamily});
  phone::SqliteWriter other;
  // A reader lets others read, but not write.
  ASSERT_TRUE(other.open(kKeychainPath) && other.run("BEGIN") && other.run("SELECT * FROM genp"));
  const auto reset = [] { return cliLine("reset com.burbn.instagram clear sys=0,appdata=0").err; };
  const std::string log = reset();
  EXPECT_NE(log.find("platformFamily/genp -> OSStatus -25308\n"), log.npos) << log;
  EXPECT_NE(log.find("T84QZS65DQ.platformFamily], left=8\n"), log.npos) << log;
  ASSERT_TRUE(other.run("COMMIT"));
  EXPECT_NE(reset().find("left=0\n"), log.npos);
}

TEST_F(Stores, TellMoreThanAScanUnderTheirOwnConditions) {
  // The last is an extension of an app's own group, but out of sight.
  fill({kFamily, kMessenger, "T84QZS65DQ.com.face.widget"});
  const std::string data = putApp("SCAN", "com.example.app");
  const std::string group = putGroup("SCAN-GROUP", "group.com.example.shared");
  const std::tuple<std::string, AppRecord, std::string> rows[] = {
      {"com.example.app", {{}, {}, "", {{"", "/b"}, {"a", "/a"}, {}}}, data + " /b /a | a"},
      {"com.example.app", {"/var/x", {}, {}, {}}, "/var/x " + group + " |"},
      {"com.apple.notes", {{}, {}, kTeam, {{"group.c", "/x"}}}, "- /x |"},
      // TEAM.bundle itself is always there, and what extends it after a dot where it has items.
      {"com.face", {{}, {}, kTeam, {}}, "- | T84QZS65DQ.com.face"},
      {"com.facebook",
       {{}, {}, kTeam, {{"b", {}}}},
       "- | b T84QZS65DQ.com.facebook T84QZS65DQ.com.facebook.Messenger"},
  };
  const auto expectPlaces = [](const std::string& bundle, const std::string& places) {
    std::string words = findContainer(bundle).value_or("-");
    for (const std::string& path : findGroupContainers(bundle))
      words += " " + path;
    words += " |";
    for (const std::string& keychainGroup : kcGroupsForBundle(bundle))
      words += " " + keychainGroup;
    EXPECT_EQ(words, places) << bundle;
  };
  putFolder("/var/db");
  phone::RecordWriter records;
  ASSERT_TRUE(records.open(phone::kRecordsPath));
  for (const auto& [bundle, record, places] : rows) {
    ASSERT_TRUE(records.put(bundle, record));
    expectPlaces(bundle, places);
  }
  put(phone::kRecordsPath, "some text that is no database at all, however long it may be");
  expectPlaces("com.example.app", data + " " + group + " |");
}

}  // namespace
}  // namespace morvane::test
