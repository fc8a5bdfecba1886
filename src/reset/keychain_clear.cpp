#include "reset/keychain_clear.h"

#include "platform/keychain.h"
#include "report/log.h"
#include "reset/keychain_groups.h"

namespace morvane {

void clearGroup(const std::string& accessGroup) {
  for (const platform::ItemClass itemClass : KC_CLASSES) {
    const platform::KeychainStatus status = platform::deleteKeychainItems(itemClass, accessGroup);
    if (status == platform::kKeychainSuccess || status == platform::kKeychainItemNotFound) continue;
    logf_("kc delete %@/%@ -> OSStatus %d", accessGroup, platform::itemClassCode(itemClass),
          status);
  }
}

std::int32_t countGroup(const std::string& accessGroup) {
  std::int32_t total = 0;
  for (const platform::ItemClass itemClass : KC_CLASSES) {
    const platform::KeychainItems items = platform::listKeychainItems(itemClass, accessGroup);
    if (items.status == platform::kKeychainSuccess) total += static_cast<std::int32_t>(items.count);
  }
  return total;
}

}  // namespace morvane
