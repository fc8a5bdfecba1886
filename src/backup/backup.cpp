#include "backup/backup.h"

#include <fcntl.h>
#include <sys/stat.h>

#include "backup/copy_progress.h"
#include "backup/copy_report.h"
#include "backup/keywords.h"
#include "backup/store.h"
#include "backup/tree_copy.h"
#include "files/open.h"
#include "locate/containers.h"
#include "report/exit_status.h"
#include "report/log.h"
#include "report/progress.h"
#include "report/results.h"

namespace morvane {
namespace {

constexpr mode_t kAppFolderMode = 0755;

/// What one run of `backup` has come to.
struct BackupRun {
  std::vector<std::string> needles;  // empty: everything is copied
  std::vector<std::string> backedUp;
  std::int32_t leftOut = 0;
  int fatalError = 0;
};

/// Copies the kept folders of one container. False where it has none of them.
bool copyKeptFolders(const std::string& container, int appFd, const BackupRun& run,
                     CopyTally& tally) {
  bool hadData = false;
  for (const char* folder : kKeptFolders) {
    const Place source{AT_FDCWD, container + "/" + folder};
    const Place destination{appFd, folder};
    if (!openFolderTrustingAt(source.dirFd, source.path)) {
      (void)tally.noteUnopened(errno);
      continue;
    }
    hadData = true;
    if (run.needles.empty()) {
      copyTreeReplacing(source, destination, tally, copyProgress());
    } else {
      copyTreeFiltered(source, destination, run.needles, tally, copyProgress());
    }
  }
  return hadData;
}

void backUpApp(const std::string& bundleId, int stagingFd, BackupRun& run) {
  const std::optional<std::string> container = findContainer(bundleId);
  if (!container) return results::backupFailContainerNotFound(bundleId);
  progress::startStep("backing up", bundleId);
  CopyTally tally;
  const UniqueFd appFd = makeFolderAt(stagingFd, bundleId.c_str(), kAppFolderMode);
  if (!appFd) tally.noteFatal(errno);
  const bool hadData = copyKeptFolders(*container, appFd.get(), run, tally);
  run.leftOut += tally.leftOut;
  if (run.fatalError == 0) run.fatalError = tally.fatalError;
  if (!hadData) return results::backupFailNoFolders(bundleId);
  run.backedUp.push_back(bundleId);
  logf_("container backed up: %@", bundleId);
  logIncompleteCopy(bundleId, tally);
}

/// Puts the finished copy in its place. Says why not; empty when all is well.
std::string publish(Staging& staging, const BackupRun& run) {
  // Without a staging folder every copy fails; its own reason is the one to tell.
  if (staging.setupError()) return staging.setupError().text();
  if (run.fatalError != 0) {
    staging.discard();  // no backup will be made of it, and it takes the room of the next attempt
    return StoreError{"copy", run.fatalError}.text();
  }
  return staging.publish(run.backedUp);
}

}  // namespace

void doBackup(const std::vector<std::string>& bundleIds, const std::string& name,
              const std::optional<std::string>& keywords) {
  const std::string finalName = backupFolderName(name);
  Staging staging(name);
  BackupRun run;
  if (keywords) run.needles = parseKeywordNeedles(*keywords);
  for (const std::string& bundleId : bundleIds)
    backUpApp(bundleId, staging.fd(), run);
  if (!run.needles.empty()) {
    logf_("lightweight backup: skipped %d file/dir matching keyword filter", run.leftOut);
  }
  if (run.backedUp.empty()) {
    staging.discard();
    results::backupFailNoData(finalName);
    endProcess(ExitStatus::failed);
  }
  progress::startStep("finishing", finalName);
  const std::string error = publish(staging, run);
  if (!error.empty()) {
    results::backupFailNotVerified(finalName, error);
    endProcess(ExitStatus::failed);
  }
  results::backupOk(finalName);
}

}  // namespace morvane
