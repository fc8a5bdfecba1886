#pragma once

#include <optional>
#include <string>
#include <vector>

namespace morvane {

/// Where the system keeps the apps' data containers and app-group containers.
inline constexpr const char* kDataRoot = "/var/mobile/Containers/Data/Application";
inline constexpr const char* kGroupRoot = "/var/mobile/Containers/Shared/AppGroup";

/// The path of the app's data container: as its application record has it (whether or not it
/// exists), else the first container whose metadata mentions the identifier; nothing where there is
/// neither.
[[nodiscard]] std::optional<std::string> findContainer(const std::string& bundleId);

/// The paths of the app's app-group containers. A record that names any group decides alone, even
/// when none of its groups has a path. Without one, every group of the same vendor is taken: every
/// container whose metadata mentions "group." and the identifier's domain prefix.
[[nodiscard]] std::vector<std::string> findGroupContainers(const std::string& bundleId);

/// The first two components of an identifier ("com.example" of "com.example.app"), empty ones
/// counted; an identifier without "." is its own prefix.
[[nodiscard]] std::string domainPrefix(const std::string& bundleId);

}  // namespace morvane
