// The phone's bodies, which run nowhere but on a phone, over stand-ins for what they call there.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/attr.h>
#include <sys/sysctl.h>
#include <unistd.h>

#include <cstring>

#include "iphone/standins.h"
#include "platform/app_record.h"
#include "platform/directory.h"
#include "platform/keychain.h"
#include "platform/process_table.h"
#include "platform/run_scope.h"
#include "platform/text.h"

namespace morvane::test {
namespace {

using platform::ItemClass;

constexpr const char* kCoreServices =
    "/System/Library/Frameworks/CoreServices.framework/CoreServices";
constexpr const char* kMobileCoreServices =
    "/System/Library/Frameworks/MobileCoreServices.framework/MobileCoreServices";

/// Begins with an empty phone; at the end nothing may be left that should have been released.
class IphoneTest : public ::testing::Test {
 protected:
  void SetUp() override { resetPhone(); }
  void TearDown() override {
    EXPECT_EQ(ownedObjects(), 0);
    EXPECT_EQ(phone().openExpressions, 0);
    EXPECT_EQ(phone().openPools, 0);
  }
};

// --- Keychain

class KeychainTest : public IphoneTest {};

TEST_F(KeychainTest, AsksExactlyTheQueriesOfEachClass) {
  const std::pair<ItemClass, const char*> classes[] = {{ItemClass::genericPassword, "genp"},
                                                       {ItemClass::internetPassword, "inet"},
                                                       {ItemClass::key, "keys"},
                                                       {ItemClass::certificate, "cert"},
                                                       {ItemClass::identity, "idnt"}};
  using Query = std::map<std::string, std::string>;
  phone().status = platform::kKeychainItemNotFound;
  for (const auto& [itemClass, code] : classes) {
    EXPECT_EQ(platform::itemClassCode(itemClass), code);
    EXPECT_EQ(platform::deleteKeychainItems(itemClass, "T.nhóm"), platform::kKeychainItemNotFound);
    (void)platform::listKeychainItems(itemClass, "T.nhóm");
    (void)platform::listKeychainItems(itemClass, std::nullopt);
    const Query ofGroup{{"class", code}, {"agrp", "T.nhóm"}};
    const Query all{{"class", code}, {"m_Limit", "m_LimitAll"}, {"r_Attributes", "true"}};
    Query allOfGroup = all;
    allOfGroup["agrp"] = "T.nhóm";
    EXPECT_EQ(phone().queries, (std::vector<Query>{ofGroup, allOfGroup, all}));
    phone().queries.clear();
  }
}

TEST_F(KeychainTest, TakesAnswersOfEveryKindAndReleasesThem) {
  const auto item = [](CFTypeRef group) { return dictionary({{kSecAttrAccessGroup, group}}); };
  const auto list = [&] {
    return array({item(text(u"A")), other(), item(other()), dictionary({}), item(text(u"Ả.b")),
                  item(text(u"\xD800")), text(u"C"), item(text(u"A"))});
  };
  struct Case {
    OSStatus status;
    std::function<CFTypeRef()> answer;
    std::size_t count;
    std::vector<std::string> groups;
  };
  const auto nothing = [] { return CFTypeRef{nullptr}; };
  const Case cases[] = {{0, list, 8, {"A", "Ả.b", "A"}},
                        {0, [&] { return array({}); }, 0, {}},
                        {0, [&] { return item(text(u"A")); }, 1, {}},
                        {0, [] { return CFTypeRef{text(u"x")}; }, 1, {}},
                        {0, nothing, 0, {}},
                        {platform::kKeychainItemNotFound, nothing, 0, {}},
                        {platform::kKeychainItemNotFound, list, 0, {}},
                        {platform::kKeychainMissingEntitlement, list, 0, {}}};
  for (const Case& c : cases) {
    SCOPED_TRACE(&c - cases);
    phone().status = c.status;
    phone().answer = c.answer();
    const platform::KeychainItems items = platform::listKeychainItems(ItemClass::key, "A");
    EXPECT_EQ(items.status, c.status);
    EXPECT_EQ(items.count, c.count);
    EXPECT_EQ(items.accessGroups, c.groups);
    EXPECT_EQ(ownedObjects(), 0);
  }
}

// A query that lost its access group would mean every item that the tool can reach.
TEST_F(KeychainTest, AsksNothingForAGroupThatIsNoText) {
  EXPECT_EQ(platform::deleteKeychainItems(ItemClass::key, "\xFF"), errSecParam);
  EXPECT_EQ(platform::listKeychainItems(ItemClass::key, "\xFF").status, errSecParam);
  EXPECT_TRUE(phone().queries.empty());
}

// --- Application records

class AppRecordTest : public IphoneTest {
 protected:
  void SetUp() override {
    IphoneTest::SetUp();
    phone().librariesThere = {kCoreServices, kMobileCoreServices};
    phone().libraryOfClass = kCoreServices;
  }

  using Properties = std::map<std::string, CFTypeRef>;
  static void install(const Properties& properties) { phone().records["com.a.b"] = properties; }
};

TEST_F(AppRecordTest, FindsTheClassInWhicheverLibraryHasIt) {
  struct Case {
    std::set<std::string> there;
    std::string ofClass;
    bool found;
    std::vector<std::string> loaded;
  };
  const Case cases[] = {
      {{kCoreServices, kMobileCoreServices}, kCoreServices, true, {kCoreServices}},
      {{kMobileCoreServices}, kMobileCoreServices, true, {kMobileCoreServices}},
      {{kCoreServices, kMobileCoreServices},
       kMobileCoreServices,
       true,
       {kCoreServices, kMobileCoreServices}},
      {{kCoreServices}, "nowhere", false, {kCoreServices}},
      {{}, kCoreServices, false, {}}};
  for (const Case& c : cases) {
    SCOPED_TRACE(&c - cases);
    resetPhone();
    phone().librariesThere = c.there;
    phone().libraryOfClass = c.ofClass;
    install({{"dataContainerURL", url("/data")}});
    EXPECT_EQ(platform::appRecord("com.a.b").has_value(), c.found);
    EXPECT_EQ(phone().loaded, c.loaded);
  }
}

TEST_F(AppRecordTest, TakesWhatTheRecordHas) {
  install({{"dataContainerURL", url("/private/var/d")},
           {"bundleURL", url("/b/A.app")},
           {"teamID", text(u"T84")},
           {"groupContainerURLs", dictionary({{text(u"group.z"), url("/z")},
                                              {text(u"group.a"), url(std::nullopt)},
                                              {other(), url("/y")},
                                              {text(u""), other()}})}});
  const auto record = platform::appRecord("com.a.b");
  ASSERT_TRUE(record);
  EXPECT_EQ(record->dataContainer, "/private/var/d");
  EXPECT_EQ(record->bundlePath, "/b/A.app");
  EXPECT_EQ(record->teamIdentifier, "T84");
  std::vector<std::pair<std::optional<std::string>, std::optional<std::string>>> groups;
  for (const auto& group : record->groups)
    groups.emplace_back(group.identifier, group.path);
  const decltype(groups) expected = {
      {"group.z", "/z"}, {"group.a", std::nullopt}, {std::nullopt, "/y"}, {"", std::nullopt}};
  EXPECT_EQ(groups, expected);
}

TEST_F(AppRecordTest, DoesWithoutWhatTheRecordLacks) {
  EXPECT_FALSE(platform::appRecord("com.a.b"));  // not installed
  EXPECT_FALSE(platform::appRecord("\xFF"));
  const Properties poor[] = {
      {},  // knows none of the properties
      {{"dataContainerURL", nullptr},
       {"bundleURL", nullptr},
       {"teamID", nullptr},
       {"groupContainerURLs", nullptr}},
      {{"dataContainerURL", text(u"/d")},
       {"bundleURL", url(std::nullopt)},
       {"teamID", url("/t")},
       {"groupContainerURLs", array({url("/g")})}},
      {{"dataContainerURL", other()}, {"groupContainerURLs", dictionary({})}}};
  for (const Properties& properties : poor) {
    SCOPED_TRACE(&properties - poor);
    install(properties);
    const auto record = platform::appRecord("com.a.b");
    ASSERT_TRUE(record);
    EXPECT_FALSE(record->dataContainer || record->bundlePath || record->teamIdentifier);
    EXPECT_TRUE(record->groups.empty());
  }
}

TEST_F(IphoneTest, RunScopeClosesThePoolItOpened) {
  const platform::RunScope scope;
  EXPECT_EQ(phone().openPools, 1);
}

// --- Text

TEST_F(IphoneTest, SearchesInTheUnitsAndWithTheOptionsOfThePlatform) {
  struct Case {
    std::string_view text, needle;
    bool found;
  };
  using namespace std::literals;
  const Case cases[] = {{"tiếng Việt 👍🏽", "Việt 👍", true},
                        {"a\0b"sv, "\0b"sv, true},
                        {"", "a", false},
                        {"x\xFFy", "\xFFy", true},    // a byte that is not UTF-8 is itself...
                        {"xÿy", "\xFF", false},       // ...and no character
                        {"\xC3", "\xC3", true},       // cut off within a character
                        {"\xC0\xAF/", "\xC0", true},  // overlong
                        {"\xED\xA0\x80", "\xED\xA0", true},    // half a surrogate pair
                        {"\xF4\x90\x80\x80", "\x90", true},    // beyond Unicode
                        {"\xF0\x9F\x91\x8D", "\x9F", false}};  // within a character
  for (const Case& c : cases) {
    SCOPED_TRACE(&c - cases);
    EXPECT_EQ(platform::containsIgnoringCase(c.text, c.needle), c.found);
  }
  const std::vector<CFStringCompareFlags> flags(std::size(cases), 1 | 16);
  EXPECT_EQ(phone().searchFlags, flags);
  EXPECT_FALSE(platform::containsIgnoringCase("a", ""));
  EXPECT_EQ(phone().searchFlags.size(), flags.size()) << "an empty needle is not searched for";
}

TEST_F(IphoneTest, FindsTheFirstMatchOrGivesUpCleanly) {
  struct Case {
    std::string_view text, pattern;
    std::size_t length;
    std::optional<std::pair<std::size_t, std::size_t>> range;
  };
  using Range = std::pair<std::size_t, std::size_t>;
  const Case cases[] = {{"com.a.b", "^[A-Za-z0-9._-]+$", 7, Range{0, 7}},
                        {"👍 việt", "v.*", 7, Range{3, 4}},  // in UTF-16, as the platform counts
                        {"a\n", "^[a]+$", 2, Range{0, 1}},
                        {"abc", "x", 3, {}},
                        {"abc", "(", 3, {}},
                        {"abc", "", 3, {}},
                        {"abc", "\xFF", 3, {}},
                        {"", "^$", 0, Range{0, 0}},
                        {"a\xFF", "a", 2, {}}};
  for (const Case& c : cases) {
    SCOPED_TRACE(&c - cases);
    const platform::FirstMatch match = platform::findFirstMatch(c.text, c.pattern);
    EXPECT_EQ(match.textLength, c.length);
    ASSERT_EQ(match.range.has_value(), c.range.has_value());
    if (c.range) {
      EXPECT_EQ(Range(match.range->start, match.range->length), *c.range);
    }
    EXPECT_EQ(phone().openExpressions, 0);
  }
}

// --- Process table

std::string processRecord(pid_t pid, std::string_view name) {
  kinfo_proc record;
  std::memset(&record, 'x', sizeof record);  // a name of the full length need not end in NUL
  record.kp_proc.p_pid = pid;
  name.copy(record.kp_proc.p_comm, sizeof record.kp_proc.p_comm);
  if (name.size() < sizeof record.kp_proc.p_comm) record.kp_proc.p_comm[name.size()] = '\0';
  return {reinterpret_cast<const char*>(&record), sizeof record};
}

TEST_F(IphoneTest, ReadsTheProcessTableOnceAndExactly) {
  const std::string table = processRecord(0, "kernel_task") + processRecord(7, "Instagram") +
                            processRecord(9, "SafariViewService");
  const std::size_t size = table.size();
  struct Case {
    std::size_t asked;
    std::string table;
    std::vector<std::string> names;
    std::vector<std::size_t> calls;
  };
  const std::vector<std::string> all = {"0 kernel_task", "7 Instagram", "9 SafariViewServic"};
  const Case cases[] = {{size, table, all, {0, size}},
                        {size + 100, table, all, {0, size + 100}},
                        {size + 100, table + "part of a record", all, {0, size + 100}},
                        {size - 1, table, {}, {0, size - 1}},  // grown in between: no second try
                        {0, table, {}, {0}}};
  for (const Case& c : cases) {
    SCOPED_TRACE(&c - cases);
    phone().tableSize = c.asked;
    phone().table = c.table;
    phone().tableCalls.clear();
    std::vector<std::string> names;
    for (const auto& entry : platform::processTable()) {
      names.push_back(std::to_string(entry.pid) + " " + entry.shortName);
    }
    EXPECT_EQ(names, c.names);
    EXPECT_EQ(phone().tableCalls, c.calls);
  }
}

// --- Listing folders

enum class Status { good, failed };

std::string listed(const std::optional<std::string>& name, std::uint32_t type,
                   Status status = Status::good) {
  attribute_set_t returned{};
  returned.commonattr = ATTR_CMN_RETURNED_ATTRS;
  std::string fields, names;
  const auto append = [&](const auto& value) {
    fields.append(reinterpret_cast<const char*>(&value), sizeof value);
  };
  if (status == Status::failed) {
    returned.commonattr |= ATTR_CMN_ERROR;
    append(std::uint32_t{5});
  }
  if (name) {
    returned.commonattr |= ATTR_CMN_NAME;
    names = *name + '\0';
    const std::size_t behind = sizeof(attrreference_t) + (status == Status::good ? 4 : 0);
    append(attrreference_t{static_cast<std::int32_t>(behind),
                           static_cast<std::uint32_t>(names.size())});
  }
  if (status == Status::good) {
    returned.commonattr |= ATTR_CMN_OBJTYPE;
    append(type);
  }
  std::string entry(4, '\0');
  entry.append(reinterpret_cast<const char*>(&returned), sizeof returned);
  entry += fields + names;
  entry.resize((entry.size() + 3) / 4 * 4);
  const auto length = static_cast<std::uint32_t>(entry.size());
  std::memcpy(entry.data(), &length, sizeof length);
  return entry;
}

std::vector<std::string> readAll(platform::DirectoryReader& reader, platform::ReadUpTo upTo) {
  const int fd = open("/", O_RDONLY | O_DIRECTORY);
  reader.start(fd, upTo, platform::FolderPosition::anywhere);
  std::vector<std::string> seen;
  while (const auto* entry = reader.next()) {
    seen.push_back(std::string(entry->name) + " " + std::to_string(static_cast<int>(entry->type)));
  }
  close(fd);
  return seen;
}

TEST_F(IphoneTest, ListsFoldersInBatches) {
  const std::string name(255 * 3, 'n');
  std::string full;
  while (full.size() < 31 * 1024)
    full += listed(name, 1);
  const std::vector<std::string> few = {"a 1", "b 2", "c 3", "d 4", "e 0"};
  const std::string fewPacked = listed("a", 1) + listed("b", 2) + listed("c", 5) + listed("d", 6) +
                                listed(std::nullopt, 1) + listed("e", 0, Status::failed);
  struct Case {
    std::vector<std::string> batches;
    int failing;
    platform::ReadUpTo upTo;
    std::size_t calls;
    bool wholeFirst;
  };
  constexpr auto kEnd = platform::ReadUpTo::end;
  constexpr auto kLikelyEnd = platform::ReadUpTo::likelyEnd;
  const Case cases[] = {{{fewPacked}, 0, kEnd, 2, false},
                        {{fewPacked}, 0, kLikelyEnd, 1, false},  // more would have fitted
                        {{full, fewPacked}, 0, kLikelyEnd, 2, true},
                        {{fewPacked}, 1, kEnd, 2, false}};
  platform::DirectoryReader reader;
  for (const Case& c : cases) {
    SCOPED_TRACE(&c - cases);
    phone().batches = c.batches;
    phone().listings = 0;
    phone().listingError = c.failing;
    std::vector<std::string> expected;
    if (c.wholeFirst) expected.assign(full.size() / listed(name, 1).size(), name + " 1");
    expected.insert(expected.end(), few.begin(), few.end());
    EXPECT_EQ(readAll(reader, c.upTo), expected);
    EXPECT_EQ(phone().listings, c.calls);
    EXPECT_EQ(reader.error(), c.failing ? EIO : 0);
  }
}

}  // namespace
}  // namespace morvane::test
