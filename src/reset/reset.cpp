#include "reset/reset.h"

#include <cstdint>
#include <optional>
#include <vector>

#include "files/open.h"
#include "files/remove_tree.h"
#include "locate/containers.h"
#include "locate/metadata_scan.h"
#include "platform/clock.h"
#include "report/log.h"
#include "report/progress.h"
#include "report/results.h"
#include "reset/keychain_clear.h"
#include "reset/keychain_groups.h"
#include "reset/processes.h"
#include "reset/system_traces.h"
#include "reset/wipe.h"

namespace morvane {
namespace {

constexpr double kSettleSeconds = 1.0;

void stopApp(const std::string& bundleId) {
  progress::startStep("stopping", bundleId);
  killProcessesNamed(execNameForBundle(bundleId));
  killProcessesNamed(bundleId);
  if (bundleId == kSafariBundleId) killProcessesContaining("Safari");
  platform::pauseFor(kSettleSeconds);
}

std::string joined(const std::vector<std::string>& texts) {
  std::string result;
  for (const std::string& text : texts) {
    if (!result.empty()) result += ',';
    result += text;
  }
  return result;
}

bool clearKeychain(const std::string& bundleId) {
  progress::startStep("clearing the keychain of", bundleId);
  const std::vector<std::string> groups = kcGroupsForBundle(bundleId);
  if (groups.empty()) {
    logf_("keychain: no group map for %@ (app lạ) — chỉ wipe container+system", bundleId);
    return false;
  }
  std::int32_t left = 0;
  for (const std::string& group : groups) {
    clearGroup(group);
    left += countGroup(group);
  }
  // The daemons hold items in memory and would go on serving what is gone.
  killProcessesNamed("securityd");
  killProcessesNamed("secd");
  logf_("keychain cleared for %@ [%@], left=%d", bundleId, joined(groups), left);
  return true;
}

void wipeGroupContainer(const std::string& path) {
  const UniqueFd folder = openFolderTrusting(path);
  if (folder) removeContents(folder.get(), kMetaName);
  logf_("appgroup wiped (full top-level): %@", splitPath(path).name);
}

bool wipeAppData(const std::string& bundleId, const std::optional<std::string>& container) {
  progress::startStep("emptying the containers of", bundleId);
  if (container) {
    for (const char* folder : {"Documents", "Library", "tmp", "SystemData"}) {
      wipeDirContents(*container + "/" + folder);
    }
    logf_("container wiped: %@", *container);
  } else {
    logf_("container: không tìm thấy cho %@", bundleId);
  }
  const std::vector<std::string> groups = findGroupContainers(bundleId);
  for (const std::string& group : groups)
    wipeGroupContainer(group);
  return container || !groups.empty();
}

/// The system keeps pictures of an app's screen and the state to reopen it with; it may have
/// written them again when the app was stopped.
void wipeSnapshots(const std::string& bundleId, const std::string& container) {
  killProcessesNamed(execNameForBundle(bundleId));
  wipeDirContents(container + "/Library/SplashBoard/Snapshots");
  wipeDirContents(container + "/Library/Saved Application State");
}

}  // namespace

bool doReset(const std::string& bundleId, ResetMode mode, const Flags& flags) {
  logf_("RESET %@", bundleId);
  if (mode == ResetMode::kill) stopApp(bundleId);
  bool found = clearKeychain(bundleId);
  const std::optional<std::string> container = findContainer(bundleId);
  if (flagBool(flags, "appdata", true)) {
    found = wipeAppData(bundleId, container) || found;
  } else {
    logf_("appdata wipe skipped (flag appdata=0) for %@", bundleId);
  }
  if (flagBool(flags, "sys", true)) {
    progress::startStep("removing the system's traces of", bundleId);
    found = wipeSystemTraces(bundleId) || found;
  } else {
    logf_("system-level wipe skipped (flag sys=0) for %@", bundleId);
  }
  if (flagBool(flags, "receipt", false)) {
    found = wipeReceiptBestEffort(bundleId, container) || found;
  }
  if (mode == ResetMode::kill && container) wipeSnapshots(bundleId, *container);
  found ? results::resetOk(bundleId) : results::resetFailNothingFound(bundleId);
  return found;
}

}  // namespace morvane
