#include "backup/restore.h"

#include <fcntl.h>

#include <optional>

#include "backup/copy_progress.h"
#include "backup/copy_report.h"
#include "backup/store.h"
#include "backup/tree_copy.h"
#include "files/open.h"
#include "locate/containers.h"
#include "platform/volume.h"
#include "report/exit_status.h"
#include "report/log.h"
#include "report/progress.h"
#include "report/results.h"
#include "reset/wipe.h"

namespace morvane {
namespace {

/// Replaces the app's kept folders by those in its folder of the backup. False where it has none.
bool restoreFolders(int appFd, const std::string& container, CopyTally& tally) {
  bool restored = false;
  for (const char* folder : kKeptFolders) {
    if (!existsAt(appFd, folder)) continue;
    const std::string target = container + "/" + folder;
    wipeDirContents(target);
    copyTreeReplacing({appFd, folder}, {AT_FDCWD, target}, tally, copyProgress());
    restored = true;
  }
  return restored;
}

/// Restores one app, named by its folder in the backup. False where there is nothing to restore.
bool restoreApp(int backupFd, const std::string& name) {
  const UniqueFd appFd = openFolderTrustingAt(backupFd, name);
  if (!appFd) return false;  // a plain file, such as the manifest
  const std::optional<std::string> container = findContainer(name);
  if (!container) {
    results::restoreFailContainerNotFound(name);
    return false;
  }
  progress::startStep("restoring", name);
  CopyTally tally;
  if (!restoreFolders(appFd.get(), *container, tally)) return false;
  // The caller may throw the backup away once it has read our result.
  const UniqueFd containerFd = openFolderTrusting(*container);
  if (containerFd) (void)platform::syncVolume(containerFd.get());
  logf_("container restored: %@", name);
  logIncompleteCopy(name, tally);
  return true;
}

}  // namespace

void doRestore(const std::string& backupName) {
  const UniqueFd backup = openFolderTrusting(std::string(kBackupRoot) + "/" + backupName);
  if (!backup) {
    results::restoreFailBackupNotFound();
    endProcess(ExitStatus::failed);
  }
  bool anyRestored = false;
  for (const std::string& name : namesIn(backup.get())) {
    anyRestored = restoreApp(backup.get(), name) || anyRestored;
  }
  if (!anyRestored) {
    results::restoreFailNoData(backupName);
    endProcess(ExitStatus::failed);
  }
  results::restoreOk(backupName);
}

}  // namespace morvane
