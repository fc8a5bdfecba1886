#include "backup/copy_report.h"

#include "report/log.h"

namespace morvane {

void logIncompleteCopy(std::string_view bundleId, const CopyTally& tally) {
  if (tally.failed == 0) return;
  logf_("copy incomplete for %@: %d file/dir could not be copied", bundleId, tally.failed);
}

}  // namespace morvane
