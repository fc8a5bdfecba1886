#include "platform/app_record.h"

#include <dlfcn.h>

#include "platform/iphone/cf.h"

namespace morvane::platform {
namespace {

/// Sends `selector` to `receiver`. objc_msgSend is a jump to the method: it must be called with the
/// method's own type, because on arm64 variadic arguments travel elsewhere than named ones.
template <typename Result, typename... Arguments>
Result send(id receiver, SEL selector, Arguments... arguments) {
  using Method = Result (*)(id, SEL, Arguments...);
  return reinterpret_cast<Method>(objc_msgSend)(receiver, selector, arguments...);
}

/// The class of the application records; null where the platform has none. A tool that links no
/// Objective-C framework does not have the class's library in its process, so it is loaded first.
/// The library exists in the system's shared cache only: there is no file to test for, and it stays
/// loaded, because classes cannot be unloaded.
id recordClass() {
  constexpr const char* kLibraries[] = {
      "/System/Library/Frameworks/CoreServices.framework/CoreServices",
      "/System/Library/Frameworks/MobileCoreServices.framework/MobileCoreServices",
  };
  for (const char* library : kLibraries) {
    if (!dlopen(library, RTLD_LAZY)) continue;
    if (const auto found = reinterpret_cast<id>(objc_getClass("LSApplicationProxy"))) return found;
  }
  return nullptr;
}

/// The value of a record's property, owned by the record or by the autorelease pool; null where it
/// has none or does not know the property. The class is private: asking first keeps the tool
/// running on a system whose records have lost one.
CFTypeRef property(id record, const char* name) {
  const SEL getter = sel_registerName(name);
  if (!send<BOOL>(record, sel_registerName("respondsToSelector:"), getter)) return nullptr;
  return send<CFTypeRef>(record, getter);
}

std::vector<AppGroup> groupsIn(CFTypeRef value) {
  const CFDictionaryRef dictionary = dictionaryIn(value);
  if (!dictionary) return {};
  const auto count = static_cast<std::size_t>(CFDictionaryGetCount(dictionary));
  std::vector<const void*> identifiers(count);
  std::vector<const void*> urls(count);
  CFDictionaryGetKeysAndValues(dictionary, identifiers.data(), urls.data());
  std::vector<AppGroup> groups;
  groups.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    groups.push_back({textOf(identifiers[i]), pathOf(urls[i])});
  }
  return groups;
}

}  // namespace

std::optional<AppRecord> appRecord(const std::string& bundleId) {
  const id records = recordClass();
  const CfRef identifier = makeString(bundleId);
  if (!records || !identifier) return std::nullopt;
  const id record =
      send<id>(records, sel_registerName("applicationProxyForIdentifier:"), identifier.get());
  if (!record) return std::nullopt;
  return AppRecord{pathOf(property(record, "dataContainerURL")),
                   pathOf(property(record, "bundleURL")), textOf(property(record, "teamID")),
                   groupsIn(property(record, "groupContainerURLs"))};
}

}  // namespace morvane::platform
