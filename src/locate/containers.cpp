#include "locate/containers.h"

#include "locate/metadata_scan.h"
#include "platform/app_record.h"

namespace morvane {

std::optional<std::string> findContainer(const std::string& bundleId) {
  if (std::optional<platform::AppRecord> record = platform::appRecord(bundleId)) {
    if (record->dataContainer) return std::move(record->dataContainer);
  }
  std::string found = dirScanFirstContaining(kDataRoot, bundleId);
  if (found.empty()) return std::nullopt;
  return found;
}

std::vector<std::string> findGroupContainers(const std::string& bundleId) {
  const std::optional<platform::AppRecord> record = platform::appRecord(bundleId);
  if (!record || record->groups.empty()) {
    return dirScanWordBoundary(kGroupRoot, "group." + domainPrefix(bundleId));
  }
  std::vector<std::string> paths;
  for (const platform::AppGroup& group : record->groups) {
    if (group.path) paths.push_back(*group.path);
  }
  return paths;
}

std::string domainPrefix(const std::string& bundleId) {
  const size_t first = bundleId.find('.');
  if (first == std::string::npos) return bundleId;
  return bundleId.substr(0, bundleId.find('.', first + 1));
}

}  // namespace morvane
