#include "report/results.h"

#include "report/log.h"
#include "report/output.h"

namespace morvane::results {
namespace {

template <typename... Arguments>
void print(Stream stream, std::string_view format, const Arguments&... arguments) {
  writeOut(stream, formatMessage(format, {MessageArgument(arguments)...}));
}

}  // namespace

void resetOk(std::string_view bundleId) {
  print(Stream::standardOutput, "RESET_OK %s\n", bundleId);
}

void resetFailNothingFound(std::string_view bundleId) {
  print(Stream::standardOutput, "RESET_FAIL %s: nothing found to reset\n", bundleId);
}

void backupOk(std::string_view backupName) {
  print(Stream::standardOutput, "BACKUP_OK %s\n", backupName);
}

void backupFailNoData(std::string_view backupName) {
  print(Stream::standardError, "BACKUP_FAIL %s: no app data backed up\n", backupName);
}

void backupFailNotVerified(std::string_view backupName, std::string_view error) {
  print(Stream::standardError,
        "BACKUP_FAIL %s: write không verify được (err=%s) — kiểm tra trustcache/entitlement "
        "binary\n",
        backupName, error);
}

void backupFailContainerNotFound(std::string_view bundleId) {
  logf_("BACKUP_FAIL %@: container not found", bundleId);
}

void backupFailNoFolders(std::string_view bundleId) {
  logf_("BACKUP_FAIL %@: no Documents/Library to back up", bundleId);
}

void restoreOk(std::string_view backupName) {
  print(Stream::standardOutput, "RESTORE_OK %s\n", backupName);
}

void restoreFailBackupNotFound() {
  print(Stream::standardError, "RESTORE_FAIL: backup not found\n");
}

void restoreFailContainerNotFound(std::string_view entryName) {
  logf_("RESTORE_FAIL %@: container not found", entryName);
}

void restoreFailNoData(std::string_view backupName) {
  print(Stream::standardError, "RESTORE_FAIL %s: no app data restored\n", backupName);
}

void removeOk(std::string_view target) {
  print(Stream::standardOutput, "REMOVE_OK %s\n", target);
}

void removeFailNotFound() {
  print(Stream::standardError, "REMOVE_FAIL: not found\n");
}

}  // namespace morvane::results
