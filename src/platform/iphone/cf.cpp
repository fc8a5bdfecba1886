#include "platform/iphone/cf.h"

namespace morvane::platform {
namespace {

constexpr Boolean kNoByteOrderMark = 0;

bool isA(CFTypeID type, CFTypeRef value) {
  return value && CFGetTypeID(value) == type;
}

/// Converts all of `string`, into `buffer` or, where that is null, only to learn the size. Returns
/// how many of its characters could be converted.
CFIndex toUtf8(CFStringRef string, std::string* buffer, CFIndex* size) {
  const CFRange all = {0, CFStringGetLength(string)};
  auto* bytes = buffer ? reinterpret_cast<std::uint8_t*>(buffer->data()) : nullptr;
  return CFStringGetBytes(string, all, kCFStringEncodingUTF8, 0, kNoByteOrderMark, bytes,
                          buffer ? static_cast<CFIndex>(buffer->size()) : 0, size);
}

}  // namespace

CfRef<CFStringRef> makeString(std::string_view text) {
  return CfRef(CFStringCreateWithBytes(nullptr, reinterpret_cast<const std::uint8_t*>(text.data()),
                                       static_cast<CFIndex>(text.size()), kCFStringEncodingUTF8,
                                       kNoByteOrderMark));
}

std::optional<std::string> textOf(CFTypeRef value) {
  if (!isA(CFStringGetTypeID(), value)) return std::nullopt;
  const auto string = static_cast<CFStringRef>(value);
  CFIndex size = 0;
  if (toUtf8(string, nullptr, &size) != CFStringGetLength(string)) return std::nullopt;
  std::string text(static_cast<std::size_t>(size), '\0');
  if (toUtf8(string, &text, nullptr) != CFStringGetLength(string)) return std::nullopt;
  return text;
}

std::optional<std::string> pathOf(CFTypeRef value) {
  if (!isA(CFURLGetTypeID(), value)) return std::nullopt;
  const CfRef path(CFURLCopyFileSystemPath(static_cast<CFURLRef>(value), kCFURLPOSIXPathStyle));
  return textOf(path.get());
}

CFArrayRef arrayIn(CFTypeRef value) {
  return isA(CFArrayGetTypeID(), value) ? static_cast<CFArrayRef>(value) : nullptr;
}

CFDictionaryRef dictionaryIn(CFTypeRef value) {
  return isA(CFDictionaryGetTypeID(), value) ? static_cast<CFDictionaryRef>(value) : nullptr;
}

}  // namespace morvane::platform
