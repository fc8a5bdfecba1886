#include "reset/wipe.h"

#include "files/open.h"
#include "files/remove_tree.h"
#include "platform/app_record.h"
#include "report/log.h"

namespace morvane {
namespace {

bool removeReceipts(const std::string& base) {
  const std::string folder = base + "/StoreKit";
  const bool receipt = removeIfExists(folder + "/receipt");
  const bool sandboxReceipt = removeIfExists(folder + "/sandboxReceipt");
  return receipt || sandboxReceipt;
}

}  // namespace

void wipeDirContents(const std::string& path) {
  const UniqueFd folder = openFolderTrusting(path);
  if (folder) removeContents(folder.get());
}

bool removeIfExists(const std::string& path) {
  const SplitPath split = splitPath(path);
  const UniqueFd parent = openFolderTrusting(split.parent);
  if (!parent || !existsAt(parent.get(), split.name.c_str())) return false;
  (void)removeEntryAt(parent.get(), split.name.c_str());  // best effort: found is what counts
  return true;
}

bool wipeReceiptBestEffort(const std::string& bundleId,
                           const std::optional<std::string>& container) {
  bool removed = container && removeReceipts(*container);
  const std::optional<platform::AppRecord> record = platform::appRecord(bundleId);
  if (record && record->bundlePath) {
    removed = removeReceipts(*record->bundlePath) || removed;
    const std::string beside = splitPath(*record->bundlePath).parent + "/iTunesMetadata.plist";
    removed = removeIfExists(beside) || removed;
  }
  logf_("receipt wipe %@: %@", bundleId, removed ? "removed something" : "nothing found");
  return removed;
}

}  // namespace morvane
