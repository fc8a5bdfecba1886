#pragma once

#include <string>

namespace morvane {

/// The target that stands for everything in the store.
inline constexpr const char* kAllBackups = "ALL";

/// Removes the backup with this folder name, or everything in the store, and prints one result
/// line. Returns when something was there to be removed (or all was asked for); otherwise ends the
/// process.
void doRemoveBackup(const std::string& target);

}  // namespace morvane
