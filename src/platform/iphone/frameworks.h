#pragma once

/// What the phone's bodies use of the platform's C interfaces. Xcode's SDK has headers for nearly
/// all of it, and they are used where they are there; the cross compiler brings only those of
/// libSystem and of the Objective-C runtime, so the rest is declared here, as Apple documents it.

#include <cstddef>
#include <cstdint>

// --- CoreFoundation and Security (developer.apple.com/documentation/corefoundation, /security)

// NOLINTBEGIN: these names are the platform's, not ours
#if defined(__APPLE__) && __has_include(<CoreFoundation/CoreFoundation.h>) && \
    __has_include(<Security/Security.h>)

#include <CoreFoundation/CoreFoundation.h>
#include <Security/Security.h>

#else

extern "C" {

using Boolean = unsigned char;
using OSStatus = std::int32_t;
using CFIndex = long;
using CFOptionFlags = unsigned long;
using CFStringEncoding = std::uint32_t;
using CFStringCompareFlags = CFOptionFlags;
using CFTypeID = unsigned long;
using CFURLPathStyle = CFIndex;

using CFTypeRef = const void*;
using CFAllocatorRef = const struct __CFAllocator*;
using CFArrayRef = const struct __CFArray*;
using CFBooleanRef = const struct __CFBoolean*;
using CFDictionaryRef = const struct __CFDictionary*;
using CFStringRef = const struct __CFString*;
using CFURLRef = const struct __CFURL*;

struct CFRange {
  CFIndex location;
  CFIndex length;
};

// Only ever passed on by address.
struct CFDictionaryKeyCallBacks;
struct CFDictionaryValueCallBacks;

extern const CFBooleanRef kCFBooleanTrue;
extern const CFDictionaryKeyCallBacks kCFTypeDictionaryKeyCallBacks;
extern const CFDictionaryValueCallBacks kCFTypeDictionaryValueCallBacks;

void CFRelease(CFTypeRef object);
CFTypeID CFGetTypeID(CFTypeRef object);

CFTypeID CFArrayGetTypeID();
CFIndex CFArrayGetCount(CFArrayRef array);
const void* CFArrayGetValueAtIndex(CFArrayRef array, CFIndex index);

CFTypeID CFDictionaryGetTypeID();
CFDictionaryRef CFDictionaryCreate(CFAllocatorRef allocator, const void** keys, const void** values,
                                   CFIndex count, const CFDictionaryKeyCallBacks* keyCallBacks,
                                   const CFDictionaryValueCallBacks* valueCallBacks);
CFIndex CFDictionaryGetCount(CFDictionaryRef dictionary);
const void* CFDictionaryGetValue(CFDictionaryRef dictionary, const void* key);
void CFDictionaryGetKeysAndValues(CFDictionaryRef dictionary, const void** keys,
                                  const void** values);

CFTypeID CFStringGetTypeID();
CFStringRef CFStringCreateWithBytes(CFAllocatorRef allocator, const std::uint8_t* bytes,
                                    CFIndex count, CFStringEncoding encoding, Boolean hasMark);
CFStringRef CFStringCreateWithCharacters(CFAllocatorRef allocator, const std::uint16_t* characters,
                                         CFIndex count);
CFIndex CFStringGetLength(CFStringRef string);
CFIndex CFStringGetBytes(CFStringRef string, CFRange range, CFStringEncoding encoding,
                         std::uint8_t lossByte, Boolean hasMark, std::uint8_t* buffer,
                         CFIndex capacity, CFIndex* used);
Boolean CFStringFindWithOptions(CFStringRef string, CFStringRef wanted, CFRange range,
                                CFStringCompareFlags flags, CFRange* found);

CFTypeID CFURLGetTypeID();
CFStringRef CFURLCopyFileSystemPath(CFURLRef url, CFURLPathStyle style);

extern const CFStringRef kSecClass;
extern const CFStringRef kSecClassGenericPassword;
extern const CFStringRef kSecClassInternetPassword;
extern const CFStringRef kSecClassKey;
extern const CFStringRef kSecClassCertificate;
extern const CFStringRef kSecClassIdentity;
extern const CFStringRef kSecAttrAccessGroup;
extern const CFStringRef kSecMatchLimit;
extern const CFStringRef kSecMatchLimitAll;
extern const CFStringRef kSecReturnAttributes;

OSStatus SecItemCopyMatching(CFDictionaryRef query, CFTypeRef* result);
OSStatus SecItemDelete(CFDictionaryRef query);

}  // extern "C"

inline constexpr CFStringEncoding kCFStringEncodingUTF8 = 0x08000100;
inline constexpr CFStringCompareFlags kCFCompareCaseInsensitive = 1;
inline constexpr CFStringCompareFlags kCFCompareNonliteral = 16;
inline constexpr CFURLPathStyle kCFURLPOSIXPathStyle = 0;
inline constexpr OSStatus errSecParam = -50;

#endif

// --- The Objective-C runtime (developer.apple.com/documentation/objectivec)

#if defined(__APPLE__) && __has_include(<objc/message.h>) && __has_include(<objc/runtime.h>)

#include <objc/message.h>
#include <objc/runtime.h>

#else

extern "C" {

using Class = struct objc_class*;
using SEL = struct objc_selector*;
using id = struct objc_object*;
using BOOL = bool;  // as on arm64

id objc_getClass(const char* name);
SEL sel_registerName(const char* name);
void objc_msgSend();  // to be called only as a function of the method's own type

}  // extern "C"

#endif

// The runtime exports these for compilers; no header of it declares them
// (clang.llvm.org/docs/AutomaticReferenceCounting.html).
extern "C" {
void* objc_autoreleasePoolPush(void);
void objc_autoreleasePoolPop(void* pool);
}

// --- ICU as the phone carries it: its names have no version in them, and no SDK has its headers
// (unicode-org.github.io/icu, unicode/uregex.h).

extern "C" {

struct URegularExpression;
struct UParseError;
using UErrorCode = int;  // an enumeration in ICU; failures are above zero

URegularExpression* uregex_open(const char16_t* pattern, std::int32_t length, std::uint32_t flags,
                                UParseError* where, UErrorCode* status);
void uregex_close(URegularExpression* expression);
void uregex_setText(URegularExpression* expression, const char16_t* text, std::int32_t length,
                    UErrorCode* status);
std::int8_t uregex_find(URegularExpression* expression, std::int32_t start, UErrorCode* status);
std::int32_t uregex_start(URegularExpression* expression, std::int32_t group, UErrorCode* status);
std::int32_t uregex_end(URegularExpression* expression, std::int32_t group, UErrorCode* status);

}  // extern "C"
// NOLINTEND
