// The phone's keychain, application records and text, over stand-ins for what they call there.

#include <gtest/gtest.h>

#include <algorithm>
#include <codecvt>
#include <deque>
#include <locale>
#include <map>

#include "platform/app_record.h"
#include "platform/keychain.h"
#include "platform/text.h"

namespace {

using namespace std::literals;
using namespace morvane::platform;  // NOLINT(google-build-using-namespace): under test here

/// Whatever the platform refers to by a pointer.
struct Object {
  enum Type : unsigned long { other, string, array, dictionary, url } type = other;
  std::u16string text = {};  // a URL's is its path
  std::vector<const Object*> values = {}, keys = {};
  mutable int owners = 1;
};
using Ref = const Object*;

/// What the phone has and was asked.
struct Phone {
  std::vector<std::string> libraries;  // the class of the records is in the last
  bool classLoaded = false;
  std::map<std::string, Ref> record;  // of the one app: property -> value
  int status = 0;                     // of every query of the keychain
  Ref answer = nullptr;
  std::string queries;
  std::deque<Object> created;  // for the code under test to release
} phone;
std::deque<Object> owned;  // by the phone itself

Ref has(Object object) {
  return &owned.emplace_back(std::move(object));
}
Ref text(std::u16string value) {
  return has({Object::string, std::move(value)});
}
Ref create(Object object) {
  return &phone.created.emplace_back(std::move(object));
}

const Object& in(Ref ref, Object::Type type) {
  EXPECT_EQ(ref->type, type);
  EXPECT_GT(ref->owners, 0) << "used after its release";
  return *ref;
}

// Half a surrogate pair becomes no text here, and what is no text an empty string.
std::wstring_convert<std::codecvt_utf8_utf16<char16_t>, char16_t> converter("", u"");

int note(Ref query) {
  const auto& [type, text, values, keys, owners] = in(query, Object::dictionary);
  for (std::size_t i = 0; i < keys.size(); ++i)
    phone.queries += converter.to_bytes(keys[i]->text + u"=" + values[i]->text + u" ");
  phone.queries += "\n";
  return phone.status;
}

}  // namespace

// As they are called, with one type for all references to objects.
extern "C" {

#define STAND_IN(Declaration, ...) \
  Declaration {                    \
    return __VA_ARGS__;            \
  }

int kCFTypeDictionaryKeyCallBacks, kCFTypeDictionaryValueCallBacks;
Ref kCFBooleanTrue = text(u"true");
// The texts behind the constants are those of the platform's headers.
Ref kSecClass = text(u"class");
Ref kSecClassGenericPassword = text(u"genp");
Ref kSecClassInternetPassword = text(u"inet");
Ref kSecClassKey = text(u"keys");
Ref kSecClassCertificate = text(u"cert");
Ref kSecClassIdentity = text(u"idnt");
Ref kSecAttrAccessGroup = text(u"agrp");
Ref kSecMatchLimit = text(u"m_Limit");
Ref kSecMatchLimitAll = text(u"m_LimitAll");
Ref kSecReturnAttributes = text(u"r_Attributes");

STAND_IN(void CFRelease(Ref ref), void(--ref->owners))
STAND_IN(unsigned long CFGetTypeID(Ref ref), ref->type)
STAND_IN(unsigned long CFArrayGetTypeID(), Object::array)
STAND_IN(unsigned long CFDictionaryGetTypeID(), Object::dictionary)
STAND_IN(unsigned long CFStringGetTypeID(), Object::string)
STAND_IN(unsigned long CFURLGetTypeID(), Object::url)
STAND_IN(long CFArrayGetCount(Ref ref), std::ssize(in(ref, Object::array).values))
STAND_IN(long CFDictionaryGetCount(Ref ref), std::ssize(in(ref, Object::dictionary).values))
STAND_IN(long CFStringGetLength(Ref ref), std::ssize(in(ref, Object::string).text))
STAND_IN(Ref CFArrayGetValueAtIndex(Ref ref, long i), *(in(ref, Object::array).values.begin() + i))

Ref CFDictionaryCreate(void*, Ref* keys, Ref* values, long count, int* ofKeys, int* ofValues) {
  EXPECT_TRUE(ofKeys && ofValues) << "would own nothing";
  return create({Object::dictionary, {}, {values, values + count}, {keys, keys + count}});
}
Ref CFDictionaryGetValue(Ref ref, Ref key) {
  const Object& ofOneEntry = in(ref, Object::dictionary);
  return ofOneEntry.keys.at(0) == key ? ofOneEntry.values.at(0) : nullptr;
}
void CFDictionaryGetKeysAndValues(Ref ref, Ref* keys, Ref* values) {
  std::ranges::copy(in(ref, Object::dictionary).keys, keys);
  std::ranges::copy(in(ref, Object::dictionary).values, values);
}
Ref CFStringCreateWithBytes(void*, const char* bytes, long count, unsigned, bool) {
  const std::u16string units = converter.from_bytes(bytes, bytes + count);
  return units.empty() ? nullptr : create({Object::string, units});
}
Ref CFStringCreateWithCharacters(void*, const char16_t* units, long count) {
  return create({Object::string, {units, units + count}});
}
struct Range {
  long location, length;
};
long CFStringGetBytes(Ref ref, Range range, unsigned, unsigned char, bool, char* buffer,
                      long capacity, long* used) {
  const std::string bytes = converter.to_bytes(in(ref, Object::string).text);
  if (buffer) std::copy_n(bytes.begin(), std::min(std::ssize(bytes), capacity), buffer);
  if (used) *used = std::ssize(bytes);
  return bytes.empty() ? 0 : range.length;
}
/// Literal: which units are compared is tested here, not how the platform compares them.
bool CFStringFindWithOptions(Ref ref, Ref wanted, Range range, unsigned long flags, Range*) {
  EXPECT_EQ(flags, 1U | 16U) << "not case-insensitive, or not equivalent characters";
  EXPECT_EQ(range.length, CFStringGetLength(ref));
  return in(ref, Object::string).text.find(in(wanted, Object::string).text) != std::string::npos;
}
Ref CFURLCopyFileSystemPath(Ref ref, long) {
  const std::u16string& path = in(ref, Object::url).text;
  return path.empty() ? nullptr : create({Object::string, path});
}

STAND_IN(int SecItemDelete(Ref query), note(query))
int SecItemCopyMatching(Ref query, Ref* result) {
  if (phone.answer) ++phone.answer->owners;
  *result = phone.answer;
  return note(query);
}

void* standInDlopen(const char* path, int) {
  phone.classLoaded |= phone.libraries.back() == path;
  return std::ranges::count(phone.libraries, path) > 0 ? &phone : nullptr;
}
void* objc_getClass(const char* name) {
  return phone.classLoaded && name == "LSApplicationProxy"s ? &phone : nullptr;
}
STAND_IN(const char* sel_registerName(const char* name), name)
const void* objc_msgSend(const void* self, const char* selector, Ref argument) {
  if (self == &phone) {
    EXPECT_EQ(selector, "applicationProxyForIdentifier:"s);
    return in(argument, Object::string).text == u"com.a.b" ? &phone.record : nullptr;
  }
  if (selector != "respondsToSelector:"s) return phone.record.at(selector);
  return reinterpret_cast<Ref>(phone.record.count(reinterpret_cast<const char*>(argument)));
}

}  // extern "C"

namespace {

/// Begins with an empty phone; at the end everything is released that should be, and nothing else.
class Iphone : public ::testing::Test {
 protected:
  Iphone() { phone = {}; }
  void TearDown() override {
    for (const Object& object : phone.created)
      EXPECT_EQ(object.owners, 0);
    for (const Object& object : owned)
      EXPECT_EQ(object.owners, 1);
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
  using CountAndGroups = std::pair<std::size_t, std::vector<std::string>>;
  const auto listed = [](int status, Ref answer) {
    phone.status = status;
    phone.answer = answer;
    const KeychainItems items = listKeychainItems(ItemClass::key, "A");
    EXPECT_EQ(items.status, status);
    return CountAndGroups(items.count, items.accessGroups);
  };
  const Ref list = has({.type = Object::array,
                        .values = {item(text(u"A")), has({}), item(has({})), text(u"C"),
                                   item(text(u"\xD800")), item(text(u"Ả.b"))}});
  EXPECT_EQ(listed(0, list), CountAndGroups(6, {"A", "Ả.b"}));
  EXPECT_EQ(listed(0, item(text(u"A"))), CountAndGroups(1, {}));
  EXPECT_EQ(listed(0, nullptr), CountAndGroups(0, {}));
  EXPECT_EQ(listed(kKeychainItemNotFound, list), CountAndGroups(0, {}));
}

/// An app's record as found, in words.
std::string recordOf(const std::string& bundleId) {
  const auto record = appRecord(bundleId);
  if (!record) return "none";
  std::vector words{record->dataContainer, record->bundlePath, record->teamIdentifier};
  for (const auto& [identifier, path] : record->groups)
    words.insert(words.end(), {identifier, path});
  std::string line;
  for (const auto& word : words)
    line += word.value_or("-") + " ";
  return line;
}

TEST_F(Iphone, TakesOfARecordWhatItHasFromTheLibraryThatHasThem) {
  const auto url = [](std::u16string path) { return has({Object::url, std::move(path)}); };
  const Object groups{Object::dictionary, {}, {url(u"/z"), url(u"")}, {text(u"z"), text(u"a")}};
  phone.record = {{"dataContainerURL", url(u"/private/var/d")},
                  {"bundleURL", url(u"/b/Ả.app")},
                  {"teamID", text(u"T84")},
                  {"groupContainerURLs", has(groups)}};
  const auto library = "/System/Library/Frameworks/CoreServices.framework/CoreServices"s;
  const auto other = "/System/Library/Frameworks/MobileCoreServices.framework/MobileCoreServices"s;
  phone.libraries = {library, "none that is asked for"};
  EXPECT_EQ(recordOf("com.a.b"), "none");
  for (const auto& libraries : {std::vector{library}, {other}, {library, other}}) {
    phone.classLoaded = false;
    phone.libraries = libraries;
    EXPECT_EQ(recordOf("com.a.b"), "/private/var/d /b/Ả.app T84 z /z a - ");
  }
  EXPECT_EQ(recordOf("com.a") + recordOf("\xFF"), "nonenone");
  // Properties that the record does not know, has none of, or has of another type.
  phone.record = {{"bundleURL", nullptr}, {"teamID", has({})}, {"groupContainerURLs", has({})}};
  EXPECT_EQ(recordOf("com.a.b"), "- - - ");
  phone.record["bundleURL"] = has({});
  EXPECT_EQ(recordOf("com.a.b"), "- - - ");
}

TEST_F(Iphone, SearchesInTheUnitsOfThePlatform) {
  const std::tuple<std::string_view, std::string_view, bool> rows[] = {
      {"tiếng Việt 👍🏽", "Việt 👍", true},
      {"a\0b"sv, "\0b"sv, true},
      {"a", "", false},
      {"x\xFFy", "\xFFy", true},           // a byte that is not UTF-8 is itself...
      {"xÿy", "\xFF", false},              // ...and no character
      {"é"sv.substr(0, 1), "\xC3", true},  // cut off within a character
      {"\xC3(", "(", true},                // goes on as no character does
      {"\xC0\xAF/", "\xC0", true},         // overlong
      {"\xED\xA0\x80", "\xA0", true},      // half a surrogate pair
      {"\xF4\x90\x80\x80", "\x90", true},  // beyond Unicode
      {"\xF0\x9F\x91\x8D", "\x9F", false}  // within a character
  };
  for (const auto& [text, needle, found] : rows)
    EXPECT_EQ(containsIgnoringCase(text, needle), found) << text;
}

TEST_F(Iphone, FindsTheFirstMatchOrGivesUpCleanly) {
  const auto match = [](std::string_view text, std::string_view pattern) {
    const auto [length, range] = findFirstMatch(text, pattern);
    const auto [start, matched] = range.value_or(TextRange{99, 99});
    return std::vector{length, start, matched};
  };
  EXPECT_EQ(match("a😀 việt", "\\x{1F600} v.*"), (std::vector{8UL, 1UL, 7UL})) << "in UTF-16";
  for (const char* pattern : {"x", "(", "a|\xFF"})
    EXPECT_EQ(match("abc", pattern), (std::vector{3UL, 99UL, 99UL})) << pattern;
  EXPECT_EQ(match("a\xFF", "a"), (std::vector{2UL, 99UL, 99UL}));
}

}  // namespace
