#pragma once

#include <optional>
#include <string>
#include <vector>

namespace morvane {

/// Copies the kept folders of each app into the backup `name`, without what matches `keywords` (if
/// given and not empty), and prints one result line. Returns only on success; a failure ends the
/// process. An older backup of that name is replaced, but never by less than a whole one.
void doBackup(const std::vector<std::string>& bundleIds, const std::string& name,
              const std::optional<std::string>& keywords);

}  // namespace morvane
