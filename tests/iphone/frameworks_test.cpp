// The phone's keychain, application records and text, over stand-ins for what they call there.

#include "platform/iphone/frameworks.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <codecvt>
#include <cstring>
#include <locale>
#include <map>

#include "platform/app_record.h"
#include "platform/keychain.h"
#include "platform/text.h"

namespace {

using namespace std::literals;
using namespace morvane::platform;  // NOLINT(google-build-using-namespace): under test here

/// Counts its owners, so that the sanitizer sees whoever uses or releases one that is gone.
struct Object {
  enum Type : CFTypeID { other, string, array, dictionary, url };

  Type type = other;
  std::u16string text = {};  // a URL's is its path
  std::vector<const Object*> keys = {}, values = {};
  mutable int owners = 1;
};
int living = 0;

const Object& in(CFTypeRef ref, Object::Type type) {
  const auto& object = *static_cast<const Object*>(ref);
  EXPECT_EQ(object.type, type);
  return object;
}

template <typename Ref>
Ref create(Object object) {
  for (const Object* value : object.values)
    ++value->owners;
  ++living;
  return reinterpret_cast<Ref>(new Object(std::move(object)));
}

/// What the phone has and was asked. Its objects go with the test.
struct Phone {
  std::map<std::string, bool> libraries;  // those there, and whether the class is in one
  bool classLoaded = false;
  std::map<std::string, const Object*> record;  // of the one app: property -> value
  OSStatus status = 0;
  const Object* answer = nullptr;                           // to every query of the keychain
  std::vector<std::map<std::string, std::string>> queries;  // key -> value
  std::vector<const Object*> objects;
} phone;

const Object* given(Object object) {
  return phone.objects.emplace_back(create<const Object*>(std::move(object)));
}
const Object* text(std::u16string value) {
  return given({Object::string, std::move(value)});
}
const Object* url(std::u16string path) {
  return given({Object::url, std::move(path)});
}

CFStringRef constant(std::u16string value) {
  return create<CFStringRef>({Object::string, std::move(value)});
}

// Half a surrogate pair becomes no text here, and what is no text an empty string.
std::wstring_convert<std::codecvt_utf8_utf16<char16_t>, char16_t> converter("", u"");

OSStatus note(CFDictionaryRef query) {
  const Object& object = in(query, Object::dictionary);
  auto& seen = phone.queries.emplace_back();
  for (std::size_t i = 0; i < object.keys.size(); ++i)
    seen[converter.to_bytes(object.keys[i]->text)] = converter.to_bytes(object.values[i]->text);
  return phone.status;
}

}  // namespace

struct CFDictionaryKeyCallBacks {};
struct CFDictionaryValueCallBacks {};

extern "C" {

const CFDictionaryKeyCallBacks kCFTypeDictionaryKeyCallBacks{};
const CFDictionaryValueCallBacks kCFTypeDictionaryValueCallBacks{};
const CFBooleanRef kCFBooleanTrue = create<CFBooleanRef>({Object::other, u"true"});
// The texts behind the constants are those of the platform's headers.
const CFStringRef kSecClass = constant(u"class");
const CFStringRef kSecClassGenericPassword = constant(u"genp");
const CFStringRef kSecClassInternetPassword = constant(u"inet");
const CFStringRef kSecClassKey = constant(u"keys");
const CFStringRef kSecClassCertificate = constant(u"cert");
const CFStringRef kSecClassIdentity = constant(u"idnt");
const CFStringRef kSecAttrAccessGroup = constant(u"agrp");
const CFStringRef kSecMatchLimit = constant(u"m_Limit");
const CFStringRef kSecMatchLimitAll = constant(u"m_LimitAll");
const CFStringRef kSecReturnAttributes = constant(u"r_Attributes");

void CFRelease(CFTypeRef ref) {
  const auto* object = static_cast<const Object*>(ref);
  if (--object->owners > 0) return;
  std::for_each(object->values.begin(), object->values.end(), CFRelease);
  --living;
  delete object;
}
CFTypeID CFGetTypeID(CFTypeRef ref) {
  return static_cast<const Object*>(ref)->type;
}
CFTypeID CFArrayGetTypeID() {
  return Object::array;
}
CFTypeID CFDictionaryGetTypeID() {
  return Object::dictionary;
}
CFTypeID CFStringGetTypeID() {
  return Object::string;
}
CFTypeID CFURLGetTypeID() {
  return Object::url;
}
CFIndex CFArrayGetCount(CFArrayRef ref) {
  return static_cast<CFIndex>(in(ref, Object::array).values.size());
}
const void* CFArrayGetValueAtIndex(CFArrayRef ref, CFIndex index) {
  return in(ref, Object::array).values.at(static_cast<std::size_t>(index));
}
CFDictionaryRef CFDictionaryCreate(CFAllocatorRef, const void** keys, const void** values,
                                   CFIndex count, const CFDictionaryKeyCallBacks* ofKeys,
                                   const CFDictionaryValueCallBacks* ofValues) {
  EXPECT_TRUE(ofKeys && ofValues) << "would own nothing";
  Object object{Object::dictionary};
  for (CFIndex i = 0; i < count; ++i) {
    object.keys.push_back(static_cast<const Object*>(keys[i]));
    object.values.push_back(static_cast<const Object*>(values[i]));
  }
  return create<CFDictionaryRef>(std::move(object));
}
CFIndex CFDictionaryGetCount(CFDictionaryRef ref) {
  return static_cast<CFIndex>(in(ref, Object::dictionary).keys.size());
}
const void* CFDictionaryGetValue(CFDictionaryRef ref, const void* key) {
  const Object& object = in(ref, Object::dictionary);
  for (std::size_t i = 0; i < object.keys.size(); ++i) {
    if (object.keys[i] == key) return object.values[i];
  }
  return nullptr;
}
void CFDictionaryGetKeysAndValues(CFDictionaryRef ref, const void** keys, const void** values) {
  std::copy_n(in(ref, Object::dictionary).keys.begin(), CFDictionaryGetCount(ref), keys);
  std::copy_n(in(ref, Object::dictionary).values.begin(), CFDictionaryGetCount(ref), values);
}

CFStringRef CFStringCreateWithBytes(CFAllocatorRef, const std::uint8_t* bytes, CFIndex count,
                                    CFStringEncoding encoding, Boolean) {
  EXPECT_EQ(encoding, kCFStringEncodingUTF8);
  const auto* first = reinterpret_cast<const char*>(bytes);
  std::u16string units = converter.from_bytes(first, first + count);
  return units.empty() && count ? nullptr : constant(std::move(units));
}
CFStringRef CFStringCreateWithCharacters(CFAllocatorRef, const std::uint16_t* units,
                                         CFIndex count) {
  return constant(std::u16string(units, units + count));
}
CFIndex CFStringGetLength(CFStringRef ref) {
  return static_cast<CFIndex>(in(ref, Object::string).text.size());
}
CFIndex CFStringGetBytes(CFStringRef ref, CFRange range, CFStringEncoding encoding, std::uint8_t,
                         Boolean, std::uint8_t* buffer, CFIndex capacity, CFIndex* used) {
  EXPECT_EQ(encoding, kCFStringEncodingUTF8);
  const std::string bytes = converter.to_bytes(in(ref, Object::string).text);
  const auto size = static_cast<CFIndex>(bytes.size());
  if (buffer) std::copy_n(bytes.begin(), std::min(size, capacity), buffer);
  if (used) *used = size;
  return size == 0 ? 0 : range.length;
}
/// Literal: which units are compared is tested here, not how the platform compares them.
Boolean CFStringFindWithOptions(CFStringRef ref, CFStringRef wanted, CFRange range,
                                CFStringCompareFlags flags, CFRange*) {
  EXPECT_EQ(flags, kCFCompareCaseInsensitive | kCFCompareNonliteral);
  EXPECT_EQ(range.length, CFStringGetLength(ref));
  return in(ref, Object::string).text.find(in(wanted, Object::string).text) != std::string::npos;
}
CFStringRef CFURLCopyFileSystemPath(CFURLRef ref, CFURLPathStyle style) {
  EXPECT_EQ(style, kCFURLPOSIXPathStyle);
  const std::u16string& path = in(ref, Object::url).text;
  return path.empty() ? nullptr : constant(path);
}

OSStatus SecItemDelete(CFDictionaryRef query) {
  return note(query);
}
OSStatus SecItemCopyMatching(CFDictionaryRef query, CFTypeRef* result) {
  if (phone.answer) ++phone.answer->owners;
  *result = phone.answer;
  return note(query);
}

void* standInDlopen(const char* path, int) {
  const auto library = phone.libraries.find(path);
  if (library == phone.libraries.end()) return nullptr;
  phone.classLoaded |= library->second;
  return &phone;
}
id objc_getClass(const char* name) {
  const bool known = phone.classLoaded && name == "LSApplicationProxy"s;
  return known ? reinterpret_cast<id>(&phone) : nullptr;
}
SEL sel_registerName(const char* name) {
  return reinterpret_cast<SEL>(const_cast<char*>(name));
}
const void* message(const void* self, const char* selector, const void* word) asm("objc_msgSend");
const void* message(const void* self, const char* selector, const void* argument) {
  if (selector == "applicationProxyForIdentifier:"s) {
    EXPECT_EQ(self, &phone);
    return in(argument, Object::string).text == u"com.a.b" ? &phone.record : nullptr;
  }
  EXPECT_EQ(self, &phone.record);
  if (selector != "respondsToSelector:"s) return phone.record.at(selector);
  const auto count = phone.record.count(static_cast<const char*>(argument));
  return reinterpret_cast<const void*>(count);
}

}  // extern "C"

namespace {

/// Begins with an empty phone; at the end nothing may be left that should have been released.
class Iphone : public ::testing::Test {
 protected:
  void TearDown() override {
    std::for_each(phone.objects.begin(), phone.objects.end(), CFRelease);
    phone = {};
    EXPECT_EQ(living, before_);
  }

 private:
  const int before_ = living;
};

TEST_F(Iphone, AsksTheKeychainExactlyTheQueriesOfEachClass) {
  for (const auto& [itemClass, code] : {std::pair{ItemClass::genericPassword, "genp"},
                                        {ItemClass::internetPassword, "inet"},
                                        {ItemClass::key, "keys"},
                                        {ItemClass::certificate, "cert"},
                                        {ItemClass::identity, "idnt"}}) {
    EXPECT_EQ(itemClassCode(itemClass), code);
    phone.queries.clear();
    phone.status = kKeychainItemNotFound;
    EXPECT_EQ(deleteKeychainItems(itemClass, "T.nhóm"), kKeychainItemNotFound);
    (void)listKeychainItems(itemClass, "T.nhóm");
    (void)listKeychainItems(itemClass, std::nullopt);
    auto expected = decltype(phone.queries)(
        3, {{"class", code}, {"m_Limit", "m_LimitAll"}, {"r_Attributes", "true"}});
    expected[0] = {{"class", code}, {"agrp", "T.nhóm"}};
    expected[1]["agrp"] = "T.nhóm";
    EXPECT_EQ(phone.queries, expected);
  }
  // A query that lost its access group would mean every item that the tool can reach.
  phone.queries.clear();
  EXPECT_EQ(deleteKeychainItems(ItemClass::key, "\xFF"), errSecParam);
  EXPECT_EQ(listKeychainItems(ItemClass::key, "\xFF").status, errSecParam);
  EXPECT_TRUE(phone.queries.empty());
}

TEST_F(Iphone, TakesAnswersOfTheKeychainOfEveryKindAndReleasesThem) {
  const auto item = [](const Object* group) {
    const auto* key = reinterpret_cast<const Object*>(kSecAttrAccessGroup);
    return given({Object::dictionary, {}, {key}, {group}});
  };
  Object list{Object::array};
  list.values = {item(text(u"A")),      given({}),         item(given({})), text(u"C"),
                 item(text(u"\xD800")), item(text(u"Ả.b"))};
  const Object* answer = given(list);
  const struct {
    OSStatus status;
    const Object* answer;
    std::size_t count;
    std::vector<std::string> groups;
  } rows[] = {{0, answer, 6, {"A", "Ả.b"}},
              {0, item(text(u"A")), 1, {}},
              {0, nullptr, 0, {}},
              {kKeychainItemNotFound, answer, 0, {}}};
  for (const auto& row : rows) {
    phone.status = row.status;
    phone.answer = row.answer;
    const KeychainItems items = listKeychainItems(ItemClass::key, "A");
    EXPECT_EQ(items.status, row.status);
    EXPECT_EQ(items.count, row.count);
    EXPECT_EQ(items.accessGroups, row.groups);
  }
}

const std::string kFrameworks = "/System/Library/Frameworks/";
const std::string kLibrary = kFrameworks + "CoreServices.framework/CoreServices";
const std::string kOther = kFrameworks + "MobileCoreServices.framework/MobileCoreServices";

TEST_F(Iphone, FindsTheRecordsInWhicheverLibraryHasThem) {
  const std::pair<decltype(phone.libraries), bool> rows[] = {
      {{{kLibrary, true}}, true},
      {{{kOther, true}}, true},
      {{{kLibrary, false}, {kOther, true}}, true},
      {{{kLibrary, false}}, false},
  };
  for (const auto& [libraries, found] : rows) {
    phone = {};
    phone.libraries = libraries;
    EXPECT_EQ(appRecord("com.a.b").has_value(), found);
    EXPECT_FALSE(appRecord("com.a") || appRecord("\xFF"));
  }
}

TEST_F(Iphone, TakesOfARecordWhatItHas) {
  phone.libraries = {{kLibrary, true}};
  phone.record = {
      {"dataContainerURL", url(u"/private/var/d")},
      {"bundleURL", url(u"/b/Ả.app")},
      {"teamID", text(u"T84")},
      {"groupContainerURLs",
       given({Object::dictionary, {}, {text(u"z"), text(u"a")}, {url(u"/z"), url(u"")}})}};
  const auto record = appRecord("com.a.b");
  ASSERT_TRUE(record);
  EXPECT_EQ(record->dataContainer, "/private/var/d");
  EXPECT_EQ(record->bundlePath, "/b/Ả.app");
  EXPECT_EQ(record->teamIdentifier, "T84");
  ASSERT_EQ(record->groups.size(), 2U);
  EXPECT_EQ(record->groups[0].identifier, "z");
  EXPECT_EQ(record->groups[0].path, "/z");
  EXPECT_EQ(record->groups[1].path, std::nullopt);
  // Properties that are unknown, empty or of another type are none.
  for (const Object* value : {static_cast<const Object*>(nullptr), given({})}) {
    phone.record = {{"dataContainerURL", value}, {"teamID", value}, {"groupContainerURLs", value}};
    const auto poor = appRecord("com.a.b");
    ASSERT_TRUE(poor);
    EXPECT_FALSE(poor->dataContainer || poor->bundlePath || poor->teamIdentifier);
    EXPECT_TRUE(poor->groups.empty());
  }
}

TEST_F(Iphone, SearchesInTheUnitsOfThePlatform) {
  const std::tuple<std::string_view, std::string_view, bool> rows[] = {
      {"tiếng Việt 👍🏽", "Việt 👍", true},
      {"a\0b"sv, "\0b"sv, true},
      {"a", "", false},
      {"x\xFFy", "\xFFy", true},           // a byte that is not UTF-8 is itself...
      {"xÿy", "\xFF", false},              // ...and no character
      {"\xC3", "\xC3", true},              // cut off within a character
      {"\xC0\xAF/", "\xC0", true},         // overlong
      {"\xED\xA0\x80", "\xA0", true},      // half a surrogate pair
      {"\xF4\x90\x80\x80", "\x90", true},  // beyond Unicode
      {"\xF0\x9F\x91\x8D", "\x9F", false}  // within a character
  };
  for (const auto& [text, needle, found] : rows)
    EXPECT_EQ(containsIgnoringCase(text, needle), found) << text;
}

TEST_F(Iphone, FindsTheFirstMatchOrGivesUpCleanly) {
  constexpr TextRange kNone = {99, 99};
  const std::tuple<std::string, std::string, std::size_t, TextRange> rows[] = {
      {"com.a.b", "^[A-Za-z0-9._-]+$", 7, {0, 7}},
      {"a👍 việt", "\\x{1F44D} v.*", 8, {1, 7}},  // in UTF-16, as the platform counts
      {"abc", "x", 3, kNone},
      {"abc", "(", 3, kNone},
      {"abc", "\xFF", 3, kNone},
      {"a\xFF", "a", 2, kNone},
  };
  for (const auto& [text, pattern, length, range] : rows) {
    const FirstMatch match = findFirstMatch(text, pattern);
    EXPECT_EQ(match.textLength, length) << text;
    const TextRange got = match.range.value_or(kNone);
    EXPECT_EQ(std::pair(got.start, got.length), std::pair(range.start, range.length)) << pattern;
  }
}

}  // namespace
