#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "phone/result.h"

namespace morvane::phone {

/// An app-group container; paths are the phone's own, from /var on.
struct Group {
  std::string identifier;
  std::string path;
};

struct App {
  std::string identifier;
  std::string name;
  std::string executable;  // file name, in the bundle
  std::string team;
  std::string dataContainer{};
  std::string bundlePath{};
  std::vector<Group> groups;
  std::vector<std::string> keychainGroups;
};

/// What a phone was made with. What has become of it since is survey.h's.
struct Description {
  std::uint64_t seed = 1;
  std::uint64_t files = 0;  // documents of each app
  std::vector<App> apps;
};

/// The folder of the phone in `dir` that is its /var, and the file that tells that it is one.
[[nodiscard]] std::string varFolder(const std::string& dir);
[[nodiscard]] std::string descriptionFile(const std::string& dir);

/// The text of a description file.
[[nodiscard]] std::string formatDescription(const Description& description);

/// Reads the description of the phone in `dir`. Fails where `dir` is no phone, and says so.
Result readDescription(const std::string& dir, Description& description);

}  // namespace morvane::phone
