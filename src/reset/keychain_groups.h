#pragma once

#include <array>
#include <string>
#include <vector>

#include "platform/keychain.h"

namespace morvane {

/// The keychain's item classes, in the order in which they are always gone through.
inline constexpr std::array<platform::ItemClass, 5> KC_CLASSES = {
    platform::ItemClass::genericPassword, platform::ItemClass::internetPassword,
    platform::ItemClass::key, platform::ItemClass::certificate, platform::ItemClass::identity};

/// The keychain access groups that belong to an app: those known for its family, its app groups,
/// the group of its team and identifier, and those in the keychain that extend that one. Distinct,
/// in the order found. Empty when nothing is known of the app. For the system's own apps
/// ("com.apple.") neither record nor keychain is asked.
[[nodiscard]] std::vector<std::string> kcGroupsForBundle(const std::string& bundleId);

}  // namespace morvane
