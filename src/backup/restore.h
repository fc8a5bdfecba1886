#pragma once

#include <string>

namespace morvane {

/// Puts what the backup with this folder name holds back into the apps' data containers, in the
/// place of what they have there now, and prints one result line. Returns only on success; a
/// failure ends the process.
void doRestore(const std::string& backupName);

}  // namespace morvane
