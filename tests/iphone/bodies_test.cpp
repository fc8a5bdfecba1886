// The phone's bodies, over stand-ins for what they call of its frameworks and kernel.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/attr.h>
#include <sys/sysctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <codecvt>
#include <cstring>
#include <deque>
#include <locale>
#include <map>

#include "platform/app_record.h"
#include "platform/directory.h"
#include "platform/keychain.h"
#include "platform/process_table.h"
#include "platform/text.h"

namespace {

using namespace std::literals;
using namespace morvane::platform;  // NOLINT(google-build-using-namespace): under test here

/// Whatever the platform refers to by a pointer.
using Ref = struct Object*;
struct Object {
  enum Type : unsigned long { other, string, array, dictionary, url } type = other;
  std::u16string text = {};  // a URL's is its path
  std::vector<Ref> values = {}, keys = {};
  int owners = 0;  // other than the phone
};
std::deque<Object> objects;

using Words = std::vector<std::uint32_t>;

/// What the phone has and was asked.
struct Phone {
  std::vector<std::string> libraries;  // the class of the records is in the last
  std::string loaded;                  // the last that was asked for
  std::map<std::string, Ref> record;   // of the one app: property -> value
  int status = 0;                      // of every query of the keychain
  Ref answer = nullptr;
  std::string queries;
  std::size_t tableSize = 0;  // of the processes, as first told
  std::string table = {};
  std::deque<Words> batches = {};  // of entries, as getattrlistbulk(2) packs them
  int error = 0;                   // of the listing after them
} phone;

Ref has(Object object) {
  return &objects.emplace_back(std::move(object));
}
Ref text(std::u16string value, int owners = 0) {
  return value.empty() ? nullptr : has({Object::string, std::move(value), {}, {}, owners});
}
const Object& in(Ref ref, Object::Type type) {
  EXPECT_EQ(ref->type, type);
  return *ref;
}

// Half a surrogate pair becomes no text here, and what is no text an empty string.
std::wstring_convert<std::codecvt_utf8_utf16<char16_t>, char16_t> converter("", u"");

}  // namespace

// As they are called, with one type for all references to objects.
extern "C" {

#define STAND_IN(Declaration, ...) \
  Declaration {                    \
    return __VA_ARGS__;            \
  }

int kCFTypeDictionaryKeyCallBacks, kCFTypeDictionaryValueCallBacks;
// The texts behind the constants are those of the platform's headers.
Ref kSecClass = text(u"class"), kSecAttrAccessGroup = text(u"agrp"),
    kSecClassGenericPassword = text(u"genp"), kSecClassInternetPassword = text(u"inet"),
    kSecClassKey = text(u"keys"), kSecClassCertificate = text(u"cert"),
    kSecClassIdentity = text(u"idnt"), kSecMatchLimit = text(u"m_Limit"),
    kSecMatchLimitAll = text(u"m_LimitAll"), kSecReturnAttributes = text(u"r_Attributes"),
    kCFBooleanTrue = text(u"true");

void CFRelease(Ref ref) {
  if (--ref->owners == 0) ref->type = Object::other;  // of no use any more
}
STAND_IN(unsigned long CFGetTypeID(Ref ref), ref->type)
STAND_IN(unsigned long CFArrayGetTypeID(), Object::array)
STAND_IN(unsigned long CFDictionaryGetTypeID(), Object::dictionary)
STAND_IN(unsigned long CFStringGetTypeID(), Object::string)
STAND_IN(unsigned long CFURLGetTypeID(), Object::url)
STAND_IN(std::size_t CFArrayGetCount(Ref ref), in(ref, Object::array).values.size())
STAND_IN(std::size_t CFDictionaryGetCount(Ref ref), in(ref, Object::dictionary).values.size())
STAND_IN(std::size_t CFStringGetLength(Ref ref), in(ref, Object::string).text.size())
STAND_IN(Ref CFArrayGetValueAtIndex(Ref ref, std::size_t i), in(ref, Object::array).values.at(i))
STAND_IN(Ref CFURLCopyFileSystemPath(Ref ref, long), text(in(ref, Object::url).text, 1))
STAND_IN(Ref CFStringCreateWithBytes(void*, const char* bytes, long count, unsigned, bool),
         text(converter.from_bytes(bytes, bytes + count), 1))
STAND_IN(Ref CFStringCreateWithCharacters(void*, const char16_t* units, long count),
         text({units, units + count}, 1))
/// Of a dictionary with one entry.
STAND_IN(Ref CFDictionaryGetValue(Ref ref, Ref key),
         in(ref, Object::dictionary).keys.at(0) == key ? ref->values.at(0) : nullptr)
Ref CFDictionaryCreate(void*, Ref* keys, Ref* values, long count, int* ofKeys, int* ofValues) {
  EXPECT_TRUE(ofKeys && ofValues) << "would own nothing";
  return has({Object::dictionary, {}, {values, values + count}, {keys, keys + count}, 1});
}
void CFDictionaryGetKeysAndValues(Ref ref, Ref* keys, Ref* values) {
  std::ranges::copy(in(ref, Object::dictionary).keys, keys);
  std::ranges::copy(ref->values, values);
}
using Range = std::array<std::size_t, 2>;  // location and length
std::size_t CFStringGetBytes(Ref ref, Range range, unsigned, unsigned char, bool, char* buffer,
                             std::size_t capacity, std::size_t* used) {
  const std::string bytes = converter.to_bytes(in(ref, Object::string).text);
  if (buffer) bytes.copy(buffer, capacity);
  if (used) *used = bytes.size();
  return bytes.empty() ? 0 : range[1];
}
/// Literal: which units are compared is tested here, not how the platform compares them.
bool CFStringFindWithOptions(Ref ref, Ref wanted, Range range, unsigned long flags, Range*) {
  EXPECT_EQ(flags, 1U | 16U) << "not case-insensitive, or not equivalent characters";
  EXPECT_EQ(range[1], CFStringGetLength(ref));
  return ref->text.find(in(wanted, Object::string).text) != std::u16string::npos;
}
int SecItemDelete(Ref query) {
  for (std::size_t i = 0; i < in(query, Object::dictionary).keys.size(); ++i)
    phone.queries +=
        converter.to_bytes(query->keys[i]->text + u"=" + query->values[i]->text + u" ");
  phone.queries += "\n";
  return phone.status;
}
int SecItemCopyMatching(Ref query, Ref* result) {
  if (phone.answer) ++phone.answer->owners;
  *result = phone.answer;
  return SecItemDelete(query);  // notes it likewise
}
void* standInDlopen(const char* path, int) {
  phone.loaded = path;
  return std::ranges::count(phone.libraries, path) > 0 ? &phone : nullptr;
}
STAND_IN(void* objc_getClass(const char* name),
         name == "LSApplicationProxy"s && phone.loaded == phone.libraries.back() ? &phone : nullptr)
STAND_IN(const char* sel_registerName(const char* name), name)
const void* objc_msgSend(const void* self, const char* selector, Ref argument) {
  if (self == &phone) {
    EXPECT_EQ(selector, "applicationProxyForIdentifier:"s);
    return in(argument, Object::string).text == u"com.a.b" ? &phone.record : nullptr;
  }
  if (selector != "respondsToSelector:"s) return phone.record.at(selector);
  return reinterpret_cast<Ref>(phone.record.count(reinterpret_cast<const char*>(argument)));
}
int sysctl(const int* name, unsigned, void* old, std::size_t* size, void*, std::size_t) {
  EXPECT_TRUE(name[0] == CTL_KERN && name[1] == KERN_PROC && name[2] == KERN_PROC_ALL);
  if (old && *size < phone.table.size()) return errno = ENOMEM, -1;
  *size = old ? phone.table.copy(static_cast<char*>(old), *size) : phone.tableSize;
  return 0;
}
int getattrlistbulk(int, void* wanted, void* buffer, std::size_t, std::uint64_t) {
  EXPECT_EQ(static_cast<attrlist*>(wanted)->commonattr, 0xA0000009);
  if (phone.batches.empty()) return phone.error ? errno = phone.error, -1 : 0;
  const Words batch = phone.batches.front();
  phone.batches.pop_front();
  std::ranges::copy(batch, static_cast<std::uint32_t*>(buffer));
  int count = 0;
  for (std::size_t at = 0; at < batch.size(); at += batch[at] / sizeof batch[at])
    ++count;
  return count;
}

}  // extern "C"

namespace {

/// At the end everything is released that should be, and nothing else, and the phone empty again.
class Iphone : public ::testing::Test {
  void TearDown() override {
    phone = {};
    for (Object& object : objects)
      EXPECT_EQ(std::exchange(object.owners, 0), 0);
  }
};

TEST_F(Iphone, AsksTheKeychainExactlyTheQueriesOfEachClass) {
  phone.status = kKeychainItemNotFound;
  const std::string codes[] = {"genp", "inet", "keys", "cert", "idnt"};  // as ItemClass has them
  for (const std::string& code : codes) {
    const auto itemClass = static_cast<ItemClass>(&code - codes);
    EXPECT_EQ(itemClassCode(itemClass), code);
    phone.queries.clear();
    EXPECT_EQ(deleteKeychainItems(itemClass, "T.nhóm"), kKeychainItemNotFound);
    (void)listKeychainItems(itemClass, "T.nhóm");
    (void)listKeychainItems(itemClass, std::nullopt);
    // A query that lost its access group would mean every item that the tool can reach.
    EXPECT_EQ(deleteKeychainItems(itemClass, "\xFF"), -50);
    EXPECT_EQ(listKeychainItems(itemClass, "\xFF").status, -50);
    const std::string ofGroup = "class=" + code + " agrp=T.nhóm ";
    const std::string all = "m_Limit=m_LimitAll r_Attributes=true \n";
    EXPECT_EQ(phone.queries, ofGroup + "\n" + ofGroup + all + "class=" + code + " " + all);
  }
}

TEST_F(Iphone, TakesAnswersOfTheKeychainOfEveryKind) {
  const auto item = [](Ref group) {
    return has({Object::dictionary, {}, {group}, {kSecAttrAccessGroup}});
  };
  const auto listed = [](int status, Ref answer) {
    phone.status = status;
    phone.answer = answer;
    const KeychainItems items = listKeychainItems(ItemClass::key, "A");
    EXPECT_EQ(items.status, status);
    return std::pair(items.count, items.accessGroups);
  };
  const std::vector<std::string> none, some = {"A", "Ả.b"};
  const Ref list = has({.type = Object::array,
                        .values = {item(text(u"A")), has({}), item(has({})), text(u"C"),
                                   item(text(u"\xD800")), item(text(u"Ả.b"))}});
  EXPECT_EQ(listed(0, list), std::pair(6UL, some));
  EXPECT_EQ(listed(0, nullptr), std::pair(0UL, none));
  EXPECT_EQ(listed(0, item(text(u"A"))), std::pair(1UL, none));
  EXPECT_EQ(listed(kKeychainItemNotFound, item(text(u"A"))), std::pair(0UL, none));
}

/// An app's record as found, in words.
std::string recordOf(const std::string& bundleId) {
  const auto record = appRecord(bundleId);
  if (!record) return "none";
  std::string line = record->bundlePath.value_or("-") + " " + record->teamIdentifier.value_or("-");
  for (const auto& [identifier, path] : record->groups)
    line += " " + identifier.value_or("-") + " " + path.value_or("-");
  return record->dataContainer.value_or("-") + " " + line;
}

TEST_F(Iphone, TakesOfARecordWhatItHasFromTheLibraryThatHasThem) {
  const auto url = [](std::u16string path) { return has({Object::url, std::move(path)}); };
  phone.record = {{"dataContainerURL", url(u"/private/var/d")},
                  {"bundleURL", url(u"/b/Ả.app")},
                  {"teamID", text(u"T84")},
                  {"groupContainerURLs", has({.type = Object::dictionary,
                                              .values = {url(u"/z"), url(u"")},
                                              .keys = {text(u"z"), text(u"a")}})}};
  const auto library = "/System/Library/Frameworks/CoreServices.framework/CoreServices"s;
  const auto other = "/System/Library/Frameworks/MobileCoreServices.framework/MobileCoreServices"s;
  phone.libraries = {library, "none that is asked for"};
  EXPECT_EQ(recordOf("com.a.b"), "none");
  for (const auto& libraries : {std::vector{library}, {other}, {library, other}}) {
    phone.libraries = libraries;
    EXPECT_EQ(recordOf("com.a.b"), "/private/var/d /b/Ả.app T84 z /z a -");
  }
  EXPECT_EQ(recordOf("com.a") + recordOf("\xFF"), "nonenone");
  // Properties that the record does not know, has none of, or has of another type.
  phone.record = {{"bundleURL", has({})}, {"teamID", nullptr}, {"groupContainerURLs", has({})}};
  EXPECT_EQ(recordOf("com.a.b"), "- - -");
}

TEST_F(Iphone, SearchesInTheUnitsOfThePlatform) {
  // A byte that is not UTF-8 is itself and no character: no part of one, and begun as one that does
  // not go on so, overlong, half a surrogate pair, beyond Unicode, or cut off.
  constexpr auto kText =
      "Việt 👍🏽 a\0b é \xFFy \xC3( \xC0\xAF \xED\xA0\x80 \xF4\x90\x80\x80 \xC4"sv;
  for (const auto found :
       {"Việt 👍"sv, "\0b"sv, "\xFFy"sv, "("sv, "\xC0"sv, "\xA0"sv, "\x90"sv, "\xC4"sv})
    EXPECT_TRUE(containsIgnoringCase(kText, found)) << found;
  for (const auto absent : {""sv, "\xE9"sv, "\x9F"sv})
    EXPECT_FALSE(containsIgnoringCase(kText, absent)) << absent;
}

TEST_F(Iphone, FindsTheFirstMatchOrGivesUpCleanly) {
  const auto match = [](std::string_view text, std::string_view pattern) {
    const auto [length, range] = findFirstMatch(text, pattern);
    return range ? std::vector{length, range->start, range->length} : std::vector{length};
  };
  EXPECT_EQ(match("a😀 việt", "\\x{1F600} v.*"), (std::vector{8UL, 1UL, 7UL})) << "in UTF-16";
  for (const char* pattern : {"x", "(", "a|\xFF"})
    EXPECT_EQ(match("abc", pattern), std::vector{3UL}) << pattern;
  EXPECT_EQ(match("a\xFF", "a"), std::vector{2UL});
}

std::string processRecord(pid_t pid, std::string_view name) {
  kinfo_proc record;
  std::memset(&record, 'x', sizeof record);  // a name of the full length need not end in NUL
  record.kp_proc.p_pid = pid;
  record.kp_proc.p_comm[name.copy(record.kp_proc.p_comm, MAXCOMLEN)] = name.size() < 16 ? 0 : 'x';
  return {reinterpret_cast<const char*>(&record), sizeof record};
}

TEST_F(Iphone, ReadsTheProcessTableExactly) {
  phone.table = processRecord(0, "kernel_task") + processRecord(9, "SafariViewService") + "a part";
  const auto processes = [](std::size_t size) {
    phone.tableSize = size;
    std::string got;
    for (const auto& [pid, name] : processTable())
      got += std::to_string(pid) + " " + name + ", ";
    return got;
  };
  EXPECT_EQ(processes(phone.table.size()), "0 kernel_task, 9 SafariViewServic, ");
  EXPECT_EQ(processes(phone.table.size() - 1) + processes(0), "") << "outgrown, or none";
}

TEST_F(Iphone, ListsFoldersInBatches) {
  // Length, the five sets of attributes returned, then those: an error first, where from its own
  // place and how long the name is, and the type. In the end the name.
  constexpr std::uint32_t kGood = 0x80000009, kFailed = 0xA0000001, kNameless = 0x80000008;
  const Words few = {
      40, kGood,     0, 0, 0, 0, 12, 2, 1, 'a',  // regular
      40, kGood,     0, 0, 0, 0, 12, 2, 2, 'b',  // folder
      28, kNameless, 0, 0, 0, 0, 1,              //
      40, kGood,     0, 0, 0, 0, 12, 2, 5, 'c',  // link
      40, kFailed,   0, 0, 0, 0, 5,  8, 2, 'd',  // no type, but a name
      40, kGood,     0, 0, 0, 0, 12, 2, 6, 'e',  // socket
  };
  const std::string names = "a1 b2 c3 d0 e4 ";
  Words full;
  std::string allNames;
  for (; full.size() < 31 * 1024 / 4; allNames += names)
    full.insert(full.end(), few.begin(), few.end());
  DirectoryReader reader;
  const auto list = [&](const std::deque<Words>& given, ReadUpTo upTo) {
    phone.batches = given;
    const int fd = open("/", O_RDONLY | O_DIRECTORY);
    reader.start(fd, upTo, FolderPosition::anywhere);
    std::string got;
    while (const auto* entry = reader.next())
      got += entry->name + std::to_string(static_cast<int>(entry->type)) + " ";
    close(fd);
    return got + std::to_string(reader.error());
  };
  EXPECT_EQ(list({few, few}, ReadUpTo::end), names + names + "0");
  EXPECT_EQ(list({few, few}, ReadUpTo::likelyEnd), names + "0") << "more would have fitted";
  EXPECT_EQ(list({full, few}, ReadUpTo::likelyEnd), allNames + names + "0");
  phone.error = EIO;
  EXPECT_EQ(list({few}, ReadUpTo::end), names + std::to_string(EIO));
}

}  // namespace
