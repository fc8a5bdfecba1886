#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "phone/description.h"

namespace morvane::phone {

/// How much a folder holds, links not followed.
struct Extent {
  std::uint64_t files = 0;  // all that is no folder
  std::uint64_t bytes = 0;  // of the regular files' content
};

struct PlaceSurvey {
  std::string path;              // the phone's
  std::optional<Extent> extent;  // nothing: it is not there
};

/// Keychain items by access group, then by the class's short code.
using KeychainCounts = std::map<std::string, std::map<std::string, std::uint64_t>>;

struct AppSurvey {
  App app;
  PlaceSurvey data;  // the metadata file, which no reset touches, not counted
  std::vector<PlaceSurvey> groups;
  KeychainCounts keychain;
  std::vector<std::string> traces;    // paths of the system's traces of it
  std::vector<std::string> receipts;  // and of its receipts and store metadata
};

struct BackupSurvey {
  std::string name;
  std::vector<std::string> apps;
  Extent extent;
};

/// What is on a phone now.
struct Survey {
  Description description;
  std::vector<AppSurvey> apps;
  std::string keychainProblem;  // why the keychain could not be read; empty when it could
  std::vector<BackupSurvey> backups;
};

/// Looks at the phone in `dir`, without changing it.
Result surveyPhone(const std::string& dir, Survey& survey);

}  // namespace morvane::phone
