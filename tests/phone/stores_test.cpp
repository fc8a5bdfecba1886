// What a user would lose: the sign-ins of apps that were not named, a reset that says "left=0"
// where sign-ins stayed, or data of the wrong app, found by guessing where the phone knows better.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>

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
using phone::kKeychainPath;
using phone::SqliteWriter;
using Names = std::vector<std::string>;

constexpr const char* kFamily = "T84QZS65DQ.platformFamily";
constexpr const char* kMessenger = "T84QZS65DQ.com.facebook.Messenger";
constexpr const char* kForeign = "group.com.burbn.instagram";
constexpr KeychainStatus kUnusable = -25291;
constexpr KeychainStatus kLocked = -25308;

class Stores : public Case {
 protected:
  void SetUp() override {
    Case::SetUp();
    putFolder("/var/Keychains");
    putFolder("/var/db");
  }

  /// Adds two generic passwords and one of each other class to each group.
  static void fill(const Names& groups) {
    phone::KeychainWriter keychain;
    ASSERT_TRUE(keychain.open(kKeychainPath));
    for (const std::string& group : groups) {
      for (const std::string label : {"genp", "genp again", "inet", "keys", "cert", "idnt"})
        ASSERT_TRUE(keychain.add(label.substr(0, 4), group, label));
    }
  }

  static void change(const std::string& sql) {
    SqliteWriter file;
    ASSERT_TRUE(file.open(kKeychainPath) && file.run(sql)) << sql;
  }

  /// How many items of each class are in one group, or in all that can be seen.
  static std::string counts(const std::optional<std::string>& group) {
    std::string words;
    for (const ItemClass itemClass : KC_CLASSES)
      words += std::to_string(listKeychainItems(itemClass, group).count) + " ";
    return words;
  }
};

TEST_F(Stores, ShowAndLoseWhatTheToolIsEntitledToAndNothingElse) {
  EXPECT_EQ(deleteKeychainItems(ItemClass::genericPassword, kFamily), kKeychainItemNotFound);
  EXPECT_EQ(namesIn("/var/Keychains"), Names()) << "a missing keychain is empty and not made";
  fill({kFamily, kMessenger, kForeign, "T84QZS65DQ.platformfamily"});
  change("CREATE TRIGGER more AFTER DELETE ON genp BEGIN DELETE FROM inet; END");
  EXPECT_EQ(counts(kFamily), "2 1 2 2 1 ") << "an identity's halves are a key and a certificate";
  EXPECT_EQ(counts(std::nullopt), "4 2 4 4 2 ");
  EXPECT_EQ(deleteKeychainItems(ItemClass::key, kForeign), kKeychainMissingEntitlement);
  EXPECT_EQ(listKeychainItems(ItemClass::key, kForeign).status, kKeychainMissingEntitlement);

  EXPECT_EQ(deleteKeychainItems(ItemClass::identity, kFamily), 0);
  EXPECT_EQ(counts(kFamily), "2 1 1 1 0 ") << "both its halves go, and nothing but them";
  EXPECT_EQ(deleteKeychainItems(ItemClass::genericPassword, kFamily), 0);
  EXPECT_EQ(deleteKeychainItems(ItemClass::genericPassword, kFamily), kKeychainItemNotFound);
  EXPECT_EQ(listKeychainItems(ItemClass::genericPassword, kFamily).status, kKeychainItemNotFound);
  EXPECT_EQ(counts(kFamily), "0 1 1 1 0 ") << "the file's own rules do not count";
  EXPECT_EQ(counts(kMessenger), "2 1 2 2 1 ");

  change("UPDATE genp SET agrp = 'T84QZS65DQ.platformFamily' WHERE agrp LIKE '%.platformfamily'");
  EXPECT_EQ(counts(kFamily), "2 1 1 1 0 ") << "a group in other letters has kept its items";
  change("UPDATE keys SET kcls = 0 WHERE kcls = 1 AND agrp = 'T84QZS65DQ.com.facebook.Messenger'");
  EXPECT_EQ(counts(kMessenger), "2 1 2 2 0 ") << "a public key makes no identity";
  change("UPDATE keys SET kcls = 1, agrp = 'T84QZS65DQ.platformFamily'");
  EXPECT_EQ(counts(kMessenger), "2 1 0 2 0 ") << "nor does the key of another group";
}

TEST_F(Stores, ThatAreDamagedAreAStatus) {
  const std::function<void()> rows[] = {
      [] { put(kKeychainPath, "no database, but some text of a certain length"); },
      [] { EXPECT_EQ(mkfifo(kKeychainPath, 0600), 0); },
      [] { putLink(kKeychainPath, "/etc/passwd"); },
      [] { change("CREATE VIEW genp AS SELECT 'T84QZS65DQ.platformFamily' AS agrp"); },
      [] {
        fill({kFamily});
        (void)!truncate(kKeychainPath, 5000);
      },
  };
  for (const auto& make : rows) {
    SCOPED_TRACE(&make - rows);
    std::filesystem::remove(kKeychainPath);
    make();
    const auto listed = listKeychainItems(ItemClass::genericPassword, std::nullopt);
    EXPECT_EQ(listed.status, kUnusable);
    EXPECT_EQ(listed.count, 0U);
    EXPECT_EQ(deleteKeychainItems(ItemClass::genericPassword, kFamily), kUnusable);
  }
}

TEST_F(Stores, ThatAreLockedAreReportedAndCountedAsLeft) {
  fill({kFamily});
  SqliteWriter other;
  ASSERT_TRUE(other.open(kKeychainPath) && other.run("BEGIN EXCLUSIVE"));
  EXPECT_EQ(listKeychainItems(ItemClass::key, kFamily).status, kLocked);
  // A reader lets others read, but not write.
  ASSERT_TRUE(other.run("ROLLBACK") && other.run("BEGIN") && other.run("SELECT * FROM genp"));
  const Names reset{"reset", "com.burbn.instagram", "clear", "sys=0,appdata=0"};
  const std::string log = cli(reset).err;
  EXPECT_NE(log.find("platformFamily/genp -> OSStatus -25308\n"), log.npos) << log;
  EXPECT_NE(log.find("T84QZS65DQ.platformFamily], left=8\n"), log.npos) << log;
  ASSERT_TRUE(other.run("COMMIT"));
  EXPECT_NE(cli(reset).err.find("left=0\n"), log.npos);
}

TEST_F(Stores, TellMoreThanAScanUnderTheirOwnConditions) {
  // The last is an extension of an app's own group, but out of sight.
  fill({kFamily, kMessenger, "T84QZS65DQ.com.facebook.Facebook", "K7.org.a.notes.widget"});
  const std::string data = putApp("SCAN", "com.example.app");
  const std::string group = putGroup("SCAN-GROUP", "group.com.example.shared");
  const std::tuple<std::string, AppRecord, std::string> rows[] = {
      {"com.example.app", {}, data + " " + group + " |"},
      {"com.example.app", {{}, {}, {}, {{"a", {}}}}, data + " | a"},
      {"com.example.app", {{}, {}, "", {{"", "/b"}, {{}, "/a"}}}, data + " /b /a |"},
      {"com.example.app", {"/var/x", {}, {}, {}}, "/var/x " + group + " |"},
      {"com.apple.notes", {{}, {}, "T84QZS65DQ", {{"group.c", "/x"}}}, "- /x |"},
      {"org.a.notes", {{}, {}, "K7", {}}, "- | K7.org.a.notes"},
      // TEAM.bundle itself is always there, and what extends it after a dot where it has items.
      {"com.face", {{}, {}, "T84QZS65DQ", {}}, "- | T84QZS65DQ.com.face"},
      {"com.facebook",
       {{}, {}, "T84QZS65DQ", {{"b", {}}}},
       "- | b T84QZS65DQ.com.facebook T84QZS65DQ.com.facebook.Messenger "
       "T84QZS65DQ.com.facebook.Facebook"},
  };
  const auto placesOf = [](const std::string& bundle) {
    std::string words = findContainer(bundle).value_or("-");
    for (const std::string& path : findGroupContainers(bundle))
      words += " " + path;
    words += " |";
    for (const std::string& keychainGroup : kcGroupsForBundle(bundle))
      words += " " + keychainGroup;
    return words;
  };
  phone::RecordWriter records;
  ASSERT_TRUE(records.open(phone::kRecordsPath));
  for (const auto& [bundle, record, places] : rows) {
    ASSERT_TRUE(records.put(bundle, record));
    EXPECT_EQ(placesOf(bundle), places) << bundle;
  }
  EXPECT_EQ(placesOf("com.example"), data + " " + group + " |") << "an app without record";
  put(phone::kRecordsPath, "some text that is no database at all, however long it may be");
  EXPECT_EQ(placesOf("com.example.app"), data + " " + group + " |");
}

}  // namespace
}  // namespace morvane::test
