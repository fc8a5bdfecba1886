#include "iphone/standins.h"

#include <gtest/gtest.h>
#include <sys/attr.h>
#include <sys/sysctl.h>

#include <algorithm>
#include <cerrno>
#include <codecvt>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <locale>

namespace morvane::test {
namespace {

std::vector<std::unique_ptr<Object>>& heap() {
  static std::vector<std::unique_ptr<Object>> objects;
  return objects;
}

std::set<const Object*>& owned() {
  static std::set<const Object*> objects;
  return objects;
}

Object* make(Object object) {
  heap().push_back(std::make_unique<Object>(std::move(object)));
  return heap().back().get();
}

[[noreturn]] void refuse(const char* what) {
  std::fprintf(stderr, "stand-in: %s\n", what);
  std::abort();
}

/// The object behind `ref`, which must be there.
Object& in(CFTypeRef ref) {
  auto* object = static_cast<Object*>(const_cast<void*>(ref));
  if (!object) refuse("a null object was used");
  if (object->owners <= 0) refuse("an object was used after its release");
  return *object;
}

Object& in(CFTypeRef ref, Object::Kind kind) {
  Object& object = in(ref);
  if (object.kind != kind) refuse("an object was taken for one of another type");
  return object;
}

/// Hands `object` to the code under test, to be released by it.
template <typename Ref>
Ref handOver(Object* object) {
  owned().insert(object);
  return reinterpret_cast<Ref>(object);
}

std::wstring_convert<std::codecvt_utf8_utf16<char16_t>, char16_t>& converter() {
  static std::wstring_convert<std::codecvt_utf8_utf16<char16_t>, char16_t> utf8;
  return utf8;
}

std::string utf8(CFTypeRef ref) {
  const Object& object = in(ref);
  if (object.kind == Object::Kind::text) return converter().to_bytes(object.text);
  return ref == kCFBooleanTrue ? "true" : "?";
}

}  // namespace

CFStringRef text(std::u16string value) {
  return reinterpret_cast<CFStringRef>(
      make({.kind = Object::Kind::text, .text = std::move(value)}));
}
CFTypeRef array(std::vector<CFTypeRef> values) {
  return make({.kind = Object::Kind::array, .values = std::move(values)});
}
CFTypeRef dictionary(std::vector<std::pair<CFTypeRef, CFTypeRef>> entries) {
  Object object{.kind = Object::Kind::dictionary};
  for (const auto& [key, value] : entries) {
    object.keys.push_back(key);
    object.values.push_back(value);
  }
  return make(std::move(object));
}
CFTypeRef url(std::optional<std::string> path) {
  return make({.kind = Object::Kind::url, .path = std::move(path)});
}
CFTypeRef other() {
  return make({});
}

int ownedObjects() {
  return static_cast<int>(owned().size());
}

Phone& phone() {
  static Phone state;
  return state;
}

void resetPhone() {
  phone() = {};
  heap().clear();
  owned().clear();
}

}  // namespace morvane::test

using namespace morvane::test;  // NOLINT(google-build-using-namespace): only definitions follow

struct CFDictionaryKeyCallBacks {
  int version;
};
struct CFDictionaryValueCallBacks {
  int version;
};

namespace {

Object constant(std::u16string value) {
  return {.kind = Object::Kind::text, .text = std::move(value)};
}

// The texts behind the platform's constants, as its headers and documentation have them.
Object trueObject;
Object classKey = constant(u"class"), groupKey = constant(u"agrp"), limitKey = constant(u"m_Limit"),
       limitAll = constant(u"m_LimitAll"), attributesKey = constant(u"r_Attributes"),
       generic = constant(u"genp"), internet = constant(u"inet"), keys = constant(u"keys"),
       certificate = constant(u"cert"), identity = constant(u"idnt");

CFStringRef asString(Object& object) {
  return reinterpret_cast<CFStringRef>(&object);
}

bool isConstant(const Object& object) {
  for (const Object* one : {&trueObject, &classKey, &groupKey, &limitKey, &limitAll, &attributesKey,
                            &generic, &internet, &keys, &certificate, &identity}) {
    if (&object == one) return true;
  }
  return false;
}

OSStatus note(CFDictionaryRef query) {
  const Object& object = in(query, Object::Kind::dictionary);
  std::map<std::string, std::string> seen;
  for (std::size_t i = 0; i < object.keys.size(); ++i) {
    if (!isConstant(in(object.keys[i]))) refuse("a key that is no constant");
    seen[utf8(object.keys[i])] = utf8(object.values[i]);
  }
  phone().queries.push_back(seen);
  return phone().status;
}

const std::map<std::string, CFTypeRef>& recordAt(void* self) {
  return *static_cast<std::map<std::string, CFTypeRef>*>(self);
}

}  // namespace

extern "C" {

const CFDictionaryKeyCallBacks kCFTypeDictionaryKeyCallBacks{};
const CFDictionaryValueCallBacks kCFTypeDictionaryValueCallBacks{};
const CFBooleanRef kCFBooleanTrue = reinterpret_cast<CFBooleanRef>(&trueObject);
const CFStringRef kSecClass = asString(classKey);
const CFStringRef kSecClassGenericPassword = asString(generic);
const CFStringRef kSecClassInternetPassword = asString(internet);
const CFStringRef kSecClassKey = asString(keys);
const CFStringRef kSecClassCertificate = asString(certificate);
const CFStringRef kSecClassIdentity = asString(identity);
const CFStringRef kSecAttrAccessGroup = asString(groupKey);
const CFStringRef kSecMatchLimit = asString(limitKey);
const CFStringRef kSecMatchLimitAll = asString(limitAll);
const CFStringRef kSecReturnAttributes = asString(attributesKey);

void CFRelease(CFTypeRef ref) {
  Object& object = in(ref);
  if (owned().erase(&object) == 0) refuse("released what belongs to another");
  if (--object.owners > 0) return;
  if (object.kind != Object::Kind::dictionary) return;
  for (CFTypeRef value : object.values)
    --static_cast<Object*>(const_cast<void*>(value))->owners;
}

CFTypeID CFGetTypeID(CFTypeRef ref) {
  return static_cast<CFTypeID>(in(ref).kind);
}
CFTypeID CFArrayGetTypeID() {
  return static_cast<CFTypeID>(Object::Kind::array);
}
CFTypeID CFDictionaryGetTypeID() {
  return static_cast<CFTypeID>(Object::Kind::dictionary);
}
CFTypeID CFStringGetTypeID() {
  return static_cast<CFTypeID>(Object::Kind::text);
}
CFTypeID CFURLGetTypeID() {
  return static_cast<CFTypeID>(Object::Kind::url);
}

CFIndex CFArrayGetCount(CFArrayRef ref) {
  return static_cast<CFIndex>(in(ref, Object::Kind::array).values.size());
}
const void* CFArrayGetValueAtIndex(CFArrayRef ref, CFIndex index) {
  return in(ref, Object::Kind::array).values.at(static_cast<std::size_t>(index));
}

CFDictionaryRef CFDictionaryCreate(CFAllocatorRef, const void** keyList, const void** valueList,
                                   CFIndex count, const CFDictionaryKeyCallBacks* keyCallBacks,
                                   const CFDictionaryValueCallBacks* valueCallBacks) {
  EXPECT_EQ(keyCallBacks, &kCFTypeDictionaryKeyCallBacks);
  EXPECT_EQ(valueCallBacks, &kCFTypeDictionaryValueCallBacks);
  Object object{.kind = Object::Kind::dictionary,
                .keys = std::vector<CFTypeRef>(keyList, keyList + count),
                .values = std::vector<CFTypeRef>(valueList, valueList + count)};
  for (CFTypeRef value : object.values)
    ++in(value).owners;
  return handOver<CFDictionaryRef>(make(std::move(object)));
}
CFIndex CFDictionaryGetCount(CFDictionaryRef ref) {
  return static_cast<CFIndex>(in(ref, Object::Kind::dictionary).keys.size());
}
const void* CFDictionaryGetValue(CFDictionaryRef ref, const void* key) {
  const Object& object = in(ref, Object::Kind::dictionary);
  for (std::size_t i = 0; i < object.keys.size(); ++i) {
    if (object.keys[i] == key) return object.values[i];
  }
  return nullptr;
}
void CFDictionaryGetKeysAndValues(CFDictionaryRef ref, const void** keyList,
                                  const void** valueList) {
  const Object& object = in(ref, Object::Kind::dictionary);
  std::copy(object.keys.begin(), object.keys.end(), keyList);
  std::copy(object.values.begin(), object.values.end(), valueList);
}

CFStringRef CFStringCreateWithBytes(CFAllocatorRef, const std::uint8_t* bytes, CFIndex count,
                                    CFStringEncoding encoding, Boolean) {
  EXPECT_EQ(encoding, kCFStringEncodingUTF8);
  try {
    const auto* first = reinterpret_cast<const char*>(bytes);
    return handOver<CFStringRef>(
        make({.kind = Object::Kind::text, .text = converter().from_bytes(first, first + count)}));
  } catch (const std::range_error&) {
    return nullptr;
  }
}
CFStringRef CFStringCreateWithCharacters(CFAllocatorRef, const std::uint16_t* units,
                                         CFIndex count) {
  return handOver<CFStringRef>(
      make({.kind = Object::Kind::text, .text = std::u16string(units, units + count)}));
}
CFIndex CFStringGetLength(CFStringRef ref) {
  return static_cast<CFIndex>(in(ref, Object::Kind::text).text.size());
}
CFIndex CFStringGetBytes(CFStringRef ref, CFRange range, CFStringEncoding encoding, std::uint8_t,
                         Boolean, std::uint8_t* buffer, CFIndex capacity, CFIndex* used) {
  EXPECT_EQ(encoding, kCFStringEncodingUTF8);
  const std::u16string& units = in(ref, Object::Kind::text).text;
  for (std::size_t i = 0; i < units.size(); ++i) {
    const bool lead = units[i] >= 0xD800 && units[i] < 0xDC00;
    const bool pair = lead && i + 1 < units.size() && (units[i + 1] & 0xFC00) == 0xDC00;
    if (units[i] >= 0xD800 && units[i] < 0xE000 && !pair) return static_cast<CFIndex>(i);
    if (pair) ++i;
  }
  const std::string bytes = converter().to_bytes(units);
  EXPECT_EQ(range.length, static_cast<CFIndex>(units.size()));
  if (buffer) {
    EXPECT_GE(capacity, static_cast<CFIndex>(bytes.size()));
    std::memcpy(buffer, bytes.data(), bytes.size());
  }
  if (used) *used = static_cast<CFIndex>(bytes.size());
  return range.length;
}
/// Literal: what is asked of it and with which units is tested here, not how the platform compares.
Boolean CFStringFindWithOptions(CFStringRef ref, CFStringRef wanted, CFRange range,
                                CFStringCompareFlags flags, CFRange*) {
  const std::u16string& units = in(ref, Object::Kind::text).text;
  EXPECT_EQ(range.location, 0);
  EXPECT_EQ(range.length, static_cast<CFIndex>(units.size()));
  phone().searchFlags.push_back(flags);
  return units.find(in(wanted, Object::Kind::text).text) != std::u16string::npos;
}

CFStringRef CFURLCopyFileSystemPath(CFURLRef ref, CFURLPathStyle style) {
  EXPECT_EQ(style, kCFURLPOSIXPathStyle);
  const auto& path = in(ref, Object::Kind::url).path;
  if (!path) return nullptr;
  return handOver<CFStringRef>(
      make({.kind = Object::Kind::text, .text = converter().from_bytes(*path)}));
}

OSStatus SecItemDelete(CFDictionaryRef query) {
  return note(query);
}
OSStatus SecItemCopyMatching(CFDictionaryRef query, CFTypeRef* result) {
  const OSStatus status = note(query);
  if (phone().answer) owned().insert(&in(phone().answer));
  *result = phone().answer;
  return status;
}

// --- The Objective-C runtime. A selector is its name.

void* standInDlopen(const char* path, int) {
  if (phone().librariesThere.count(path) == 0) return nullptr;
  phone().loaded.emplace_back(path);
  return &phone();
}
id objc_getClass(const char* name) {
  const auto& loaded = phone().loaded;
  const bool known =
      std::find(loaded.begin(), loaded.end(), phone().libraryOfClass) != loaded.end();
  return known && std::string_view(name) == "LSApplicationProxy" ? reinterpret_cast<id>(&phone())
                                                                 : nullptr;
}
SEL sel_registerName(const char* name) {
  static std::set<std::string> names;
  return reinterpret_cast<SEL>(const_cast<char*>(names.insert(name).first->c_str()));
}
const void* standInMessage(void* self, const char* selector,
                           const void* argument) asm("objc_msgSend");
const void* standInMessage(void* self, const char* selector, const void* argument) {
  const std::string_view name = selector;
  if (self == &phone()) {
    if (name != "applicationProxyForIdentifier:") refuse("unknown class method");
    const auto found = phone().records.find(utf8(argument));
    return found == phone().records.end() ? nullptr : &found->second;
  }
  const auto& record = recordAt(self);
  if (name == "respondsToSelector:") {
    return record.count(static_cast<const char*>(argument)) != 0 ? &record : nullptr;
  }
  const auto found = record.find(std::string(name));
  if (found == record.end()) refuse("a record was sent a message it does not know");
  return found->second;
}
void* objc_autoreleasePoolPush(void) {
  ++phone().openPools;
  return &phone();
}
void objc_autoreleasePoolPop(void* pool) {
  EXPECT_EQ(pool, &phone());
  --phone().openPools;
}

void noteExpressions(int change) {
  phone().openExpressions += change;
}

// --- The kernel

int sysctl(const int* name, unsigned length, void* old, std::size_t* oldSize, const void*,
           std::size_t) {
  const int expected[] = {CTL_KERN, KERN_PROC, KERN_PROC_ALL, 0};
  EXPECT_EQ(length, 4U);
  EXPECT_EQ(std::memcmp(name, expected, sizeof expected), 0);
  phone().tableCalls.push_back(*oldSize);
  if (!old) {
    *oldSize = phone().tableSize;
    return 0;
  }
  if (*oldSize < phone().table.size()) return errno = ENOMEM, -1;
  *oldSize = phone().table.size();
  std::memcpy(old, phone().table.data(), phone().table.size());
  return 0;
}

int getattrlistbulk(int, void* wanted, void* buffer, std::size_t size, std::uint64_t) {
  const auto& attributes = *static_cast<attrlist*>(wanted);
  EXPECT_EQ(attributes.commonattr,
            ATTR_CMN_RETURNED_ATTRS | ATTR_CMN_ERROR | ATTR_CMN_NAME | ATTR_CMN_OBJTYPE);
  const std::size_t call = phone().listings++;
  if (call == phone().batches.size()) return phone().listingError ? errno = EIO, -1 : 0;
  const std::string& batch = phone().batches[call];
  EXPECT_LE(batch.size(), size);
  std::memcpy(buffer, batch.data(), batch.size());
  int count = 0;
  for (std::size_t at = 0; at < batch.size(); ++count) {
    std::uint32_t length = 0;
    std::memcpy(&length, batch.data() + at, sizeof length);
    at += length;
  }
  return count;
}

}  // extern "C"
