#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "platform/iphone/frameworks.h"

namespace morvane::platform {

/// Owns one CoreFoundation object that a function with "Create" or "Copy" in its name has handed
/// out, and releases it. Empty where that function failed.
template <typename Ref>
class CfRef {
 public:
  CfRef() = default;
  explicit CfRef(Ref object) : object_(object) {}
  CfRef(CfRef&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  CfRef(const CfRef&) = delete;
  CfRef& operator=(const CfRef&) = delete;
  CfRef& operator=(CfRef&&) = delete;
  ~CfRef() {
    if (object_) CFRelease(object_);
  }

  [[nodiscard]] Ref get() const { return object_; }
  [[nodiscard]] explicit operator bool() const { return object_ != nullptr; }

 private:
  Ref object_ = nullptr;
};

/// A string object with the UTF-8 `text`; empty where it is not UTF-8.
[[nodiscard]] CfRef<CFStringRef> makeString(std::string_view text);

/// The UTF-8 text of `value`; nothing where it is null, no string, or a string that UTF-8 cannot
/// express (half a surrogate pair).
[[nodiscard]] std::optional<std::string> textOf(CFTypeRef value);

/// The file-system path of `value`; nothing where it is null, no URL, or a URL without one.
[[nodiscard]] std::optional<std::string> pathOf(CFTypeRef value);

/// `value` as an array or a dictionary; null where it is null or of another type.
[[nodiscard]] CFArrayRef arrayIn(CFTypeRef value);
[[nodiscard]] CFDictionaryRef dictionaryIn(CFTypeRef value);

}  // namespace morvane::platform
