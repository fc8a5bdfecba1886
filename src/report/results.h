#pragma once

#include <string_view>

/// Every result line that the tool can print, one function each. Controlling programs parse these,
/// so text and stream of each are fixed: both reset lines go to standard output, every other
/// failure to standard error, and the per-app failures of the backup store are lines of the
/// progress log.
namespace morvane::results {

void resetOk(std::string_view bundleId);
void resetFailNothingFound(std::string_view bundleId);

void backupOk(std::string_view backupName);
void backupFailNoData(std::string_view backupName);
void backupFailNotVerified(std::string_view backupName, std::string_view error);
void backupFailContainerNotFound(std::string_view bundleId);
void backupFailNoFolders(std::string_view bundleId);

void restoreOk(std::string_view backupName);
void restoreFailBackupNotFound();
void restoreFailContainerNotFound(std::string_view entryName);
void restoreFailNoData(std::string_view backupName);

void removeOk(std::string_view target);
void removeFailNotFound();

}  // namespace morvane::results
