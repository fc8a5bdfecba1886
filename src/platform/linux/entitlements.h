#pragma once

#include <span>
#include <string_view>

namespace morvane::platform {

/// The `keychain-access-groups` of packaging/entitlements.plist, the file that signs the iPhone
/// binary, in its order. Made from it by entitlements.cmake when the build is configured.
extern const std::span<const std::string_view> kEntitledGroups;

}  // namespace morvane::platform
