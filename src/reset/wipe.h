#pragma once

#include <optional>
#include <string>

namespace morvane {

/// Removes everything in the folder at `path`, hidden entries included, and keeps the folder. Does
/// nothing where there is no folder. What cannot be removed stays, in silence.
void wipeDirContents(const std::string& path);

/// Removes what is at `path`, a folder with everything below it. True when something was there (a
/// dangling link is nothing, and stays), whether or not it could be removed.
bool removeIfExists(const std::string& path);

/// Removes the app's App Store receipts, in its data container and in its installed bundle, and the
/// store metadata beside the bundle. True when any of them was there. Logs one line.
bool wipeReceiptBestEffort(const std::string& bundleId,
                           const std::optional<std::string>& container);

}  // namespace morvane
