#pragma once

#include <optional>
#include <string>
#include <vector>

namespace morvane::platform {

/// One app-group entry of an application record. Either half can be missing where the platform's
/// dictionary holds something that is not a text or not a file URL.
struct AppGroup {
  std::optional<std::string> identifier;
  std::optional<std::string> path;
};

/// What the platform knows of an installed app. Paths are as the platform gives them; nothing says
/// that they exist.
struct AppRecord {
  std::optional<std::string> dataContainer;
  std::optional<std::string> bundlePath;
  std::optional<std::string> teamIdentifier;
  std::vector<AppGroup> groups;  // in the record's own order
};

/// The record of the app `bundleId`, fetched afresh; nothing where the platform has no application
/// records or does not know the app.
[[nodiscard]] std::optional<AppRecord> appRecord(const std::string& bundleId);

}  // namespace morvane::platform
