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

  /// Adds an item of each class (of passwords and keys one more) to each group.
  static void fill(const Groups& groups) {
    KeychainWriter keychain;
    phone::Result result = keychain.open(kKeychainPath);
    for (const std::string& group : groups) {
      for (const char* code : {"genp", "inet", "keys", "cert", "idnt"}) {
        if (result) result = keychain.add(code, group, std::string("first ") + code);
      }
      if (result) result = keychain.add("genp", group, "second");
    }
    ASSERT_TRUE(result) << result.reason();
  }

  static void change(const std::string& sql) {
    SqliteWriter file;
    ASSERT_TRUE(file.open(kKeychainPath) && file.run(sql)) << sql;
  }

  /// The items of each class in one group, or in all that can be seen, in the order of KC_CLASSES.
  static std::vector<size_t> counts(const std::optional<std::string>& group) {
    std::vector<size_t> made;
    for (const ItemClass itemClass : KC_CLASSES) {
      made.push_back(listKeychainItems(itemClass, group).count);
    }
    return made;
  }
};

TEST_F(Keychain, ShowsAndDeletesWhatTheToolIsEntitledToAndNothingElse) {
  fill({kFamily, kMessenger, kForeign, "T84QZS65DQ.platformfamily"});
  const std::vector<size_t> full{2, 1, 2, 2,
                                 1};  // an identity's halves are a key and a certificate
  EXPECT_EQ(counts(kFamily), full);
  EXPECT_EQ(counts(std::nullopt), (std::vector<size_t>{4, 2, 4, 4, 2}));
  EXPECT_EQ(listKeychainItems(ItemClass::internetPassword, std::nullopt).accessGroups,
            (Groups{kFamily, kMessenger}));
  for (const ItemClass itemClass : KC_CLASSES) {
    EXPECT_EQ(deleteKeychainItems(itemClass, kForeign), kRefused);
    EXPECT_EQ(listKeychainItems(itemClass, kForeign).status, kRefused);
  }
  // An identity takes both its halves with it, and nothing but them.
  EXPECT_EQ(deleteKeychainItems(ItemClass::identity, kFamily), 0);
  EXPECT_EQ(counts(kFamily), (std::vector<size_t>{2, 1, 1, 1, 0}));
  EXPECT_EQ(deleteKeychainItems(ItemClass::identity, kFamily), kNotFound);
  EXPECT_EQ(deleteKeychainItems(ItemClass::genericPassword, kFamily), 0);
  EXPECT_EQ(deleteKeychainItems(ItemClass::genericPassword, kFamily), kNotFound);
  EXPECT_EQ(listKeychainItems(ItemClass::genericPassword, kFamily).status, kNotFound);
  EXPECT_EQ(counts(kFamily), (std::vector<size_t>{0, 1, 1, 1, 0}));
  EXPECT_EQ(counts(kMessenger), full);
  // A certificate whose key is of another group, or not the private one, is no identity.
  change("UPDATE keys SET agrp = 'T84QZS65DQ.platformFamily' WHERE kcls = 1");
  EXPECT_EQ(counts(kMessenger), (std::vector<size_t>{2, 1, 1, 2, 0}));
  change(
      "UPDATE keys SET agrp = 'T84QZS65DQ.com.facebook.Messenger', kcls = 0 WHERE klbl IN"
      " (SELECT pkhh FROM cert WHERE agrp = 'T84QZS65DQ.com.facebook.Messenger')");
  EXPECT_EQ(counts(kMessenger), (std::vector<size_t>{2, 1, 2, 2, 0}));
}

TEST_F(Keychain, ThatIsMissingIsEmptyAndStaysMissing) {
  EXPECT_EQ(deleteKeychainItems(ItemClass::genericPassword, kFamily), kNotFound);
  EXPECT_EQ(listKeychainItems(ItemClass::identity, std::nullopt).status, kNotFound);
  EXPECT_EQ(listKeychainItems(ItemClass::identity, kForeign).status, kRefused);
  EXPECT_EQ(namesIn("/var/Keychains"), Groups());
}

/// A page of a table's tree: every one of its 300 children is the page `child`.
std::string pageOfManyChildren(unsigned child) {
  constexpr unsigned kCells = 300;
  constexpr unsigned kSize = 4096;
  std::string page(kSize, '\0');
  const auto put16 = [&page](size_t at, unsigned value) {
    page[at] = static_cast<char>(value >> 8);
    page[at + 1] = static_cast<char>(value);
  };
  page[0] = 5;  // interior page of a table (https://www.sqlite.org/fileformat.html)
  put16(3, kCells);
  put16(5, kSize - kCells * 5);
  put16(10, child);
  for (unsigned cell = 0; cell < kCells; ++cell) {
    const unsigned at = kSize - (cell + 1) * 5;
    put16(12 + cell * 2, at);
    put16(at + 2, child);
    page[at + 4] = 1;
  }
  return page;
}

/// Ten pages of generic passwords that a walk takes for 300 to the tenth.
void putEndlessKeychain() {
  SqliteWriter file;
  ASSERT_TRUE(file.open(kKeychainPath));
  ASSERT_TRUE(file.run("CREATE TABLE genp (agrp TEXT)"));
  ASSERT_TRUE(file.run("INSERT INTO genp VALUES ('x')"));
  ASSERT_TRUE(file.run("CREATE TABLE filler (bytes BLOB)"));
  ASSERT_TRUE(file.run("INSERT INTO filler VALUES (zeroblob(60000))"));
  std::string bytes = contentOf(kKeychainPath);
  const std::string leaf = bytes.substr(4096, 4096);  // page 2 is the table's
  for (unsigned page = 2; page < 12; ++page) {
    bytes.replace((page - 1) * 4096, 4096, pageOfManyChildren(page + 1));
  }
  bytes.replace(11 * 4096, 4096, leaf);
  put(kKeychainPath, bytes);
}

TEST_F(Keychain, ThatIsDamagedIsAStatus) {
  const struct {
    const char* what;
    std::function<void()> make;
    KeychainStatus status;
  } rows[] = {
      {"text", [] { put(kKeychainPath, "no database, but some text of a certain length"); },
       kUnusable},
      {"empty", [] { put(kKeychainPath, ""); }, kUnusable},
      {"folder", [] { putFolder(kKeychainPath); }, kUnusable},
      {"fifo",
       [] {
         (void)runCommand({"mkfifo", kKeychainPath});
       },
       kUnusable},
      {"link", [] { putLink(kKeychainPath, "/etc/passwd"); }, kUnusable},
      {"tables missing", [] { change("CREATE TABLE other (agrp TEXT)"); }, kUnusable},
      {"column missing", [] { change("CREATE TABLE genp (other TEXT)"); }, kUnusable},
      {"view", [] { change("CREATE VIEW genp AS SELECT 'T84QZS65DQ.platformFamily' AS agrp"); },
       kUnusable},
      {"cut",
       [] {
         fill({kFamily});
         put(kKeychainPath, contentOf(kKeychainPath).substr(0, 5000));
       },
       kUnusable},
      {"endless", [] { putEndlessKeychain(); }, kUnusable},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    std::filesystem::remove_all(kKeychainPath);
    row.make();
    EXPECT_EQ(listKeychainItems(ItemClass::genericPassword, std::nullopt).status, row.status);
    EXPECT_EQ(listKeychainItems(ItemClass::genericPassword, std::nullopt).count, 0U);
    EXPECT_EQ(deleteKeychainItems(ItemClass::genericPassword, kFamily), row.status);
  }
}

TEST_F(Keychain, CannotMakeTheToolDeleteMore) {
  fill({kFamily, kMessenger});
  change("CREATE TRIGGER more AFTER DELETE ON genp BEGIN DELETE FROM inet; END");
  EXPECT_EQ(deleteKeychainItems(ItemClass::genericPassword, kFamily), 0);
  EXPECT_EQ(counts(kMessenger), (std::vector<size_t>{2, 1, 2, 2, 1}));
  EXPECT_EQ(counts(kFamily), (std::vector<size_t>{0, 1, 2, 2, 1}));
  // Names are compared byte by byte, whatever the file says.
  change("ALTER TABLE genp RENAME TO old");
  change("CREATE TABLE genp (agrp TEXT COLLATE NOCASE)");
  change("INSERT INTO genp VALUES ('t84qzs65dq.PLATFORMFAMILY'), ('T84QZS65DQ.platformFamily')");
  EXPECT_EQ(counts(kFamily)[0], 1U);
  EXPECT_EQ(deleteKeychainItems(ItemClass::genericPassword, kFamily), 0);
  SqliteWriter file;
  ASSERT_TRUE(file.open(kKeychainPath));
  EXPECT_TRUE(file.run("CREATE UNIQUE INDEX one ON genp ((1))")) << "the other item is still there";
  EXPECT_FALSE(file.run("INSERT INTO genp VALUES ('another')"));
}

TEST_F(Keychain, ThatIsLockedIsReportedAndCountedAsLeft) {
  fill({kFamily});
  SqliteWriter other;
  ASSERT_TRUE(other.open(kKeychainPath) && other.run("BEGIN EXCLUSIVE"));
  EXPECT_EQ(listKeychainItems(ItemClass::key, kFamily).status, kLocked);
  EXPECT_EQ(deleteKeychainItems(ItemClass::key, kFamily), kLocked);
  // A reader lets others read, but not write.
  ASSERT_TRUE(other.run("ROLLBACK") && other.run("BEGIN"));
  ASSERT_TRUE(other.run("SELECT * FROM genp"));
  const Outcome reset = cli({"reset", "com.burbn.instagram", "clear", "sys=0,appdata=0"});
  EXPECT_EQ(reset.status, 0);
  EXPECT_NE(reset.err.find("platformFamily/genp -> OSStatus -25308\n"), std::string::npos);
  EXPECT_NE(reset.err.find("T84QZS65DQ.platformFamily], left=8\n"), std::string::npos) << reset;
  ASSERT_TRUE(other.run("COMMIT"));
  EXPECT_NE(cli({"reset", "com.burbn.instagram", "clear", "sys=0,appdata=0"}).err.find("left=0\n"),
            std::string::npos);
}

TEST_F(Keychain, GroupsOfAnAppComeFromTableRecordAndKeychain) {
  const Groups entitled{kFamily, kMessenger, "T84QZS65DQ.com.facebook.Facebook",
                        "MJ797D8U6F.com.ss.iphone.ugc.Ame"};
  fill(entitled);
  fill({"K7.org.example.notes.widget"});  // an extension of the app's own group, but out of sight
  using Record = platform::AppRecord;
  const platform::AppGroup nameless{std::nullopt, "/var/x"};
  const struct {
    std::string bundle;
    std::optional<Record> record;
    Groups expected;
  } rows[] = {
      {"org.example.notes", std::nullopt, {}},
      {"org.example.notes",
       Record{{}, {}, "", {{"group.a", "/x"}, {"", "/y"}, nameless}},
       {"group.a"}},
      {"org.example.notes", Record{{}, {}, "K7", {}}, {"K7.org.example.notes"}},
      // TEAM.bundle itself is always there, and what extends it after a dot where it has items.
      {"com.facebook",
       Record{{}, {}, "T84QZS65DQ", {{"group.b", {}}}},
       {"group.b", "T84QZS65DQ.com.facebook", kMessenger, "T84QZS65DQ.com.facebook.Facebook"}},
      {"com.face", Record{{}, {}, "T84QZS65DQ", {}}, {"T84QZS65DQ.com.face"}},
      {"com.ss.iphone.ugc",
       Record{{}, {}, "MJ797D8U6F", {}},
       {"MJ797D8U6F.com.ss.iphone.ugc", "MJ797D8U6F.com.ss.iphone.ugc.Ame"}},
      // Once each, in the order found.
      {"com.facebook.Facebook",
       Record{{}, {}, "T84QZS65DQ", {{"group.com.facebook.family", {}}}},
       {kFamily, "group.com.facebook.family", "group.com.facebook.Facebook",
        "group.com.facebook.msysstorage", "T84QZS65DQ.com.facebook.Facebook"}},
      {"com.apple.notes", Record{{}, {}, "T84QZS65DQ", {{"group.c", "/x"}}}, {}},
  };
  for (const auto& row : rows) {
    phone::RecordWriter records;
    ASSERT_TRUE(records.open(phone::kRecordsPath) && records.remove(row.bundle));
    ASSERT_TRUE(!row.record || records.put(row.bundle, *row.record));
    EXPECT_EQ(kcGroupsForBundle(row.bundle), row.expected) << row.bundle;
  }
}

}  // namespace
}  // namespace morvane::test
