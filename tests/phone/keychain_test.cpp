// What a user would lose: the sign-ins of apps that were not named, or a reset that says "left=0"
// where sign-ins stayed.

#include "platform/keychain.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>

#include "phone/keychain_writer.h"
#include "phone/record_writer.h"
#include "reset/keychain_groups.h"
#include "support/case.h"
#include "support/command.h"
#include "support/tree.h"

namespace morvane::test {
namespace {

using phone::KeychainWriter;
using phone::kKeychainPath;
using phone::SqliteWriter;
using platform::deleteKeychainItems;
using platform::ItemClass;
using platform::KeychainStatus;
using platform::listKeychainItems;
using Groups = std::vector<std::string>;
using Counts = std::vector<size_t>;  // in the order of KC_CLASSES

constexpr const char* kFamily = "T84QZS65DQ.platformFamily";
constexpr const char* kMessenger = "T84QZS65DQ.com.facebook.Messenger";
constexpr const char* kForeign = "group.com.burbn.instagram";
constexpr KeychainStatus kNotFound = -25300;
constexpr KeychainStatus kRefused = -34018;
constexpr KeychainStatus kUnusable = -25291;
constexpr KeychainStatus kLocked = -25308;

class Keychain : public Case {
 protected:
  void SetUp() override {
    Case::SetUp();
    putFolder("/var/Keychains");
    putFolder("/var/db");
  }

  /// Adds two generic passwords and one of each other class to each group.
  static void fill(const Groups& groups) {
    KeychainWriter keychain;
    ASSERT_TRUE(keychain.open(kKeychainPath));
    for (const std::string& group : groups) {
      for (const char* code : {"genp", "inet", "keys", "cert", "idnt"})
        ASSERT_TRUE(keychain.add(code, group, std::string("first ") + code));
      ASSERT_TRUE(keychain.add("genp", group, "second"));
    }
  }

  static void change(const std::string& sql) {
    SqliteWriter file;
    ASSERT_TRUE(file.open(kKeychainPath) && file.run(sql)) << sql;
  }

  /// The items in one group, or in all that can be seen.
  static Counts counts(const std::optional<std::string>& group) {
    Counts made;
    for (const ItemClass itemClass : KC_CLASSES)
      made.push_back(listKeychainItems(itemClass, group).count);
    return made;
  }
};

TEST_F(Keychain, ShowsAndDeletesWhatTheToolIsEntitledToAndNothingElse) {
  EXPECT_EQ(deleteKeychainItems(ItemClass::genericPassword, kFamily), kNotFound);
  EXPECT_EQ(namesIn("/var/Keychains"), Groups()) << "a missing keychain is empty and not made";
  fill({kFamily, kMessenger, kForeign, "T84QZS65DQ.platformfamily"});
  change("CREATE TRIGGER more AFTER DELETE ON genp BEGIN DELETE FROM inet; END");
  // An identity's halves are a key and a certificate.
  EXPECT_EQ(counts(kFamily), (Counts{2, 1, 2, 2, 1}));
  EXPECT_EQ(counts(std::nullopt), (Counts{4, 2, 4, 4, 2}));
  EXPECT_EQ(listKeychainItems(ItemClass::internetPassword, std::nullopt).accessGroups,
            (Groups{kFamily, kMessenger}));
  for (const ItemClass itemClass : KC_CLASSES) {
    EXPECT_EQ(deleteKeychainItems(itemClass, kForeign), kRefused);
    EXPECT_EQ(listKeychainItems(itemClass, kForeign).status, kRefused);
  }
  // An identity takes both its halves with it, and nothing but them.
  EXPECT_EQ(deleteKeychainItems(ItemClass::identity, kFamily), 0);
  EXPECT_EQ(counts(kFamily), (Counts{2, 1, 1, 1, 0}));
  EXPECT_EQ(deleteKeychainItems(ItemClass::genericPassword, kFamily), 0);
  EXPECT_EQ(deleteKeychainItems(ItemClass::genericPassword, kFamily), kNotFound);
  EXPECT_EQ(listKeychainItems(ItemClass::genericPassword, kFamily).status, kNotFound);
  EXPECT_EQ(counts(kFamily), (Counts{0, 1, 1, 1, 0})) << "the file's own rules do not count";
  EXPECT_EQ(counts(kMessenger), (Counts{2, 1, 2, 2, 1}));
  // A certificate whose key is of another group, or not the private one, is no identity.
  change("UPDATE keys SET kcls = 0 WHERE kcls = 1 AND agrp = 'T84QZS65DQ.com.facebook.Messenger'");
  EXPECT_EQ(counts(kMessenger)[4], 0U);
  change("UPDATE keys SET kcls = 1, agrp = 'T84QZS65DQ.platformFamily'");
  EXPECT_EQ(counts(kMessenger)[4], 0U);
}

TEST_F(Keychain, ThatIsDamagedIsAStatus) {
  const std::function<void()> rows[] = {
      [] { put(kKeychainPath, "no database, but some text of a certain length"); },
      [] {
        (void)runCommand({"mkfifo", kKeychainPath});
      },
      [] { putLink(kKeychainPath, "/etc/passwd"); },
      [] { change("CREATE TABLE genp (other TEXT)"); },
      [] { change("CREATE VIEW genp AS SELECT 'T84QZS65DQ.platformFamily' AS agrp"); },
      [] {
        fill({kFamily});
        put(kKeychainPath, contentOf(kKeychainPath).substr(0, 5000));
      },
  };
  for (const auto& make : rows) {
    SCOPED_TRACE(&make - rows);
    std::filesystem::remove_all(kKeychainPath);
    make();
    const auto listed = listKeychainItems(ItemClass::genericPassword, std::nullopt);
    EXPECT_EQ(listed.status, kUnusable);
    EXPECT_EQ(listed.count, 0U);
    EXPECT_EQ(deleteKeychainItems(ItemClass::genericPassword, kFamily), kUnusable);
  }
}

TEST_F(Keychain, ThatIsLockedIsReportedAndCountedAsLeft) {
  fill({kFamily});
  SqliteWriter other;
  ASSERT_TRUE(other.open(kKeychainPath) && other.run("BEGIN EXCLUSIVE"));
  EXPECT_EQ(listKeychainItems(ItemClass::key, kFamily).status, kLocked);
  // A reader lets others read, but not write.
  ASSERT_TRUE(other.run("ROLLBACK") && other.run("BEGIN") && other.run("SELECT * FROM genp"));
  const auto reset = [] {
    return cli({"reset", "com.burbn.instagram", "clear", "sys=0,appdata=0"}).err;
  };
  const std::string log = reset();
  EXPECT_NE(log.find("platformFamily/genp -> OSStatus -25308\n"), log.npos) << log;
  EXPECT_NE(log.find("T84QZS65DQ.platformFamily], left=8\n"), log.npos) << log;
  ASSERT_TRUE(other.run("COMMIT"));
  EXPECT_NE(reset().find("left=0\n"), log.npos);
}

TEST_F(Keychain, GroupsOfAnAppComeFromTableRecordAndKeychain) {
  // The last is an extension of the app's own group, but out of sight.
  fill({kFamily, kMessenger, "T84QZS65DQ.com.facebook.Facebook", "K7.org.a.notes.widget"});
  using Record = platform::AppRecord;
  const platform::AppGroup nameless{std::nullopt, "/var/x"};
  const struct {
    std::string bundle;
    Record record;
    Groups expected;
  } rows[] = {
      {"org.a.notes", {{}, {}, "", {{"group.a", "/x"}, {"", "/y"}, nameless}}, {"group.a"}},
      {"org.a.notes", {{}, {}, "K7", {}}, {"K7.org.a.notes"}},
      // TEAM.bundle itself is always there, and what extends it after a dot where it has items.
      {"com.facebook",
       {{}, {}, "T84QZS65DQ", {{"group.b", {}}}},
       {"group.b", "T84QZS65DQ.com.facebook", kMessenger, "T84QZS65DQ.com.facebook.Facebook"}},
      {"com.face", {{}, {}, "T84QZS65DQ", {}}, {"T84QZS65DQ.com.face"}},
      // Once each, in the order found.
      {"com.facebook.Facebook",
       {{}, {}, "T84QZS65DQ", {{"group.com.facebook.family", {}}}},
       {kFamily, "group.com.facebook.family", "group.com.facebook.Facebook",
        "group.com.facebook.msysstorage", "T84QZS65DQ.com.facebook.Facebook"}},
      {"com.apple.notes", {{}, {}, "T84QZS65DQ", {{"group.c", "/x"}}}, {}},
  };
  phone::RecordWriter records;
  ASSERT_TRUE(records.open(phone::kRecordsPath));
  for (const auto& row : rows) {
    ASSERT_TRUE(records.put(row.bundle, row.record));
    EXPECT_EQ(kcGroupsForBundle(row.bundle), row.expected) << row.bundle;
  }
}

}  // namespace
}  // namespace morvane::test
