#include "backup/restore.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
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

/// Whether the folder at `path` may hold the one open at `fd`, however far below: what cannot be
/// found out may be so.
bool mayHold(const std::string& path, int fd) {
  const UniqueFd folder = openFolderTrusting(path);
  if (!folder) return errno != ENOENT && errno != ENOTDIR && errno != ELOOP;
  struct stat status;
  const std::optional<std::vector<FolderId>> lineage = lineageOf(fd);
  if (!lineage || fstat(folder.get(), &status) != 0) return true;
  return std::find(lineage->begin(), lineage->end(), FolderId(status)) != lineage->end();
}

/// Replaces the app's kept folders by those in its folder of the backup. False where it has none.
bool restoreFolders(int appFd, const std::string& container, CopyTally& tally) {
  bool restored = false;
  for (const char* folder : kKeptFolders) {
    if (!existsAt(appFd, folder)) {
      if (errno != ENOENT) tally.note({errno, platform::CopySide::source});
      continue;
    }
    // What the app has now is not given up for what cannot be read; nor is the backup, where the
    // store is in the app's folder.
    if (!openFolderTrustingAt(appFd, folder) && tally.noteUnopened(errno)) continue;
    const std::string target = container + "/" + folder;
    if (mayHold(target, appFd)) {
      tally.note({EINVAL, platform::CopySide::destination});
      continue;
    }
    wipeDirContents(target);
    copyTreeReplacing({appFd, folder}, {AT_FDCWD, target}, tally, copyProgress());
    restored = true;
  }
  return restored;
}

/// The caller may throw the backup away once it has read our result.
void syncContainer(const std::string& name, const std::string& container) {
  const UniqueFd folder = openFolderTrusting(container);
  const int error = folder ? syncFailure(platform::syncVolume(folder.get())) : errno;
  if (error != 0) logf_("container not synced: %@ (%@)", name, std::strerror(error));
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
  const bool restored = restoreFolders(appFd.get(), *container, tally);
  if (restored) {
    syncContainer(name, *container);
    logf_("container restored: %@", name);
  }
  logIncompleteCopy(name, tally);
  return restored;
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
