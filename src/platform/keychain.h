#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace morvane::platform {

/// The keychain's item classes.
enum class ItemClass { genericPassword, internetPassword, key, certificate, identity };

/// The platform's status code of a keychain call (OSStatus, Security/SecBase.h).
using KeychainStatus = std::int32_t;
inline constexpr KeychainStatus kKeychainSuccess = 0;                  // errSecSuccess
inline constexpr KeychainStatus kKeychainItemNotFound = -25300;        // errSecItemNotFound
inline constexpr KeychainStatus kKeychainMissingEntitlement = -34018;  // errSecMissingEntitlement

/// The answer to a query for the items of a class.
struct KeychainItems {
  KeychainStatus status = kKeychainItemNotFound;
  /// How many items the answer stands for: an answer that is no list stands for one. 0 unless the
  /// status is success and there was an answer.
  std::size_t count = 0;
  /// The access group of each listed item that names one, in the answer's order, repeats included.
  std::vector<std::string> accessGroups;
};

/// The short code by which the platform names `itemClass` ("genp", "inet", ...).
[[nodiscard]] std::string itemClassCode(ItemClass itemClass);

/// Deletes every item of `itemClass` in `accessGroup`. Returns the platform's status: "item not
/// found" where there was none, "missing entitlement" where the tool may not touch the group.
[[nodiscard]] KeychainStatus deleteKeychainItems(ItemClass itemClass,
                                                 const std::string& accessGroup);

/// Lists the items of `itemClass` in `accessGroup`, or, without one, in every group that the tool
/// is entitled to. Never fails otherwise than by its status.
[[nodiscard]] KeychainItems listKeychainItems(ItemClass itemClass,
                                              const std::optional<std::string>& accessGroup);

}  // namespace morvane::platform
