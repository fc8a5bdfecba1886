#include "backup/remove.h"

#include "backup/store.h"
#include "report/exit_status.h"
#include "report/progress.h"
#include "report/results.h"
#include "reset/wipe.h"

namespace morvane {

void doRemoveBackup(const std::string& target) {
  progress::startStep("removing", target);
  if (target == kAllBackups) {
    removeAllBackups();
  } else if (!removeIfExists(std::string(kBackupRoot) + "/" + target)) {
    results::removeFailNotFound();
    endProcess(ExitStatus::failed);
  }
  results::removeOk(target);
}

}  // namespace morvane
