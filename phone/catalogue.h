#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "phone/description.h"

namespace morvane::phone {

inline constexpr const char* kSafariIdentifier = "com.apple.mobilesafari";

/// The apps of a phone that was asked for none in particular: those whose keychain groups the tool
/// knows, Safari, and one that it does not know.
[[nodiscard]] std::vector<std::string> defaultApps();

/// Whether the phone can have an app `identifier`: the tool's own rule, and short enough for the
/// file names that are made of it.
[[nodiscard]] bool isPossibleIdentifier(std::string_view identifier);

/// The app `identifier` with its places on a phone of `seed`. One that the catalogue does not know
/// gets what apps usually have.
[[nodiscard]] App describeApp(const std::string& identifier, std::uint64_t seed);

}  // namespace morvane::phone
