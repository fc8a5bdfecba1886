#include "platform/keychain.h"

#include <initializer_list>
#include <utility>

#include "platform/iphone/cf.h"

namespace morvane::platform {
namespace {

CFStringRef classConstant(ItemClass itemClass) {
  switch (itemClass) {
    case ItemClass::genericPassword:
      return kSecClassGenericPassword;
    case ItemClass::internetPassword:
      return kSecClassInternetPassword;
    case ItemClass::key:
      return kSecClassKey;
    case ItemClass::certificate:
      return kSecClassCertificate;
    case ItemClass::identity:
      return kSecClassIdentity;
  }
  return nullptr;
}

using Query = CfRef<CFDictionaryRef>;

Query makeQuery(std::initializer_list<std::pair<CFTypeRef, CFTypeRef>> entries) {
  std::vector<const void*> keys;
  std::vector<const void*> values;
  for (const auto& [key, value] : entries) {
    keys.push_back(key);
    values.push_back(value);
  }
  return Query(
      CFDictionaryCreate(nullptr, keys.data(), values.data(), static_cast<CFIndex>(entries.size()),
                         &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks));
}

Query makeListQuery(ItemClass itemClass, const std::optional<std::string>& accessGroup) {
  const CFTypeRef wanted = classConstant(itemClass);
  if (!accessGroup) {
    return makeQuery({{kSecClass, wanted},
                      {kSecMatchLimit, kSecMatchLimitAll},
                      {kSecReturnAttributes, kCFBooleanTrue}});
  }
  const CfRef group = makeString(*accessGroup);
  if (!group) return Query();
  return makeQuery({{kSecClass, wanted},
                    {kSecAttrAccessGroup, group.get()},
                    {kSecMatchLimit, kSecMatchLimitAll},
                    {kSecReturnAttributes, kCFBooleanTrue}});
}

void takeItems(CFTypeRef answer, KeychainItems& items) {
  const CFArrayRef list = arrayIn(answer);
  if (!list) {
    items.count = 1;
    return;
  }
  const CFIndex count = CFArrayGetCount(list);
  items.count = static_cast<std::size_t>(count);
  for (CFIndex i = 0; i < count; ++i) {
    const CFDictionaryRef attributes = dictionaryIn(CFArrayGetValueAtIndex(list, i));
    if (!attributes) continue;
    auto group = textOf(CFDictionaryGetValue(attributes, kSecAttrAccessGroup));
    if (group) items.accessGroups.push_back(std::move(*group));
  }
}

}  // namespace

std::string itemClassCode(ItemClass itemClass) {
  return textOf(classConstant(itemClass)).value_or("");
}

KeychainStatus deleteKeychainItems(ItemClass itemClass, const std::string& accessGroup) {
  const CfRef group = makeString(accessGroup);
  // Without its access group the query would delete every item of the class.
  if (!group) return errSecParam;
  const Query query =
      makeQuery({{kSecClass, classConstant(itemClass)}, {kSecAttrAccessGroup, group.get()}});
  return query ? SecItemDelete(query.get()) : errSecParam;
}

KeychainItems listKeychainItems(ItemClass itemClass,
                                const std::optional<std::string>& accessGroup) {
  KeychainItems items;
  const Query query = makeListQuery(itemClass, accessGroup);
  CFTypeRef found = nullptr;
  items.status = query ? SecItemCopyMatching(query.get(), &found) : errSecParam;
  const CfRef answer(found);  // released whatever the status
  if (items.status == kKeychainSuccess && answer) takeItems(answer.get(), items);
  return items;
}

}  // namespace morvane::platform
