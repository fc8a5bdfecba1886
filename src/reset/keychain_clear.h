#pragma once

#include <cstdint>
#include <string>

namespace morvane {

/// Deletes every keychain item of `accessGroup`, class by class. A class that the platform refuses
/// is logged with its status; one without items is not.
void clearGroup(const std::string& accessGroup);

/// How many items of `accessGroup` the keychain still shows. What cannot be read counts as none.
[[nodiscard]] std::int32_t countGroup(const std::string& accessGroup);

}  // namespace morvane
