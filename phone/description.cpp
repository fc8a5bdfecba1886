#include "phone/description.h"

#include <algorithm>
#include <fstream>
#include <sstream>

#include "phone/plist.h"

namespace morvane::phone {
namespace {

constexpr std::uint64_t kFormat = 1;

Plist formatApp(const App& app) {
  Plist groups = Plist::array();
  for (const Group& group : app.groups) {
    groups.add(std::move(Plist::dictionary()
                             .set("Identifier", Plist::text(group.identifier))
                             .set("Path", Plist::text(group.path))));
  }
  Plist made = Plist::dictionary();
  made.set("Identifier", Plist::text(app.identifier))
      .set("Name", Plist::text(app.name))
      .set("Executable", Plist::text(app.executable))
      .set("Team", Plist::text(app.team))
      .set("DataContainer", Plist::text(app.dataContainer))
      .set("BundlePath", Plist::text(app.bundlePath))
      .set("Groups", std::move(groups))
      .set("KeychainGroups", Plist::texts(app.keychainGroups));
  return made;
}

App readApp(const Plist& from) {
  App app;
  app.identifier = from.textAt("Identifier");
  app.name = from.textAt("Name");
  app.executable = from.textAt("Executable");
  app.team = from.textAt("Team");
  app.dataContainer = from.textAt("DataContainer");
  app.bundlePath = from.textAt("BundlePath");
  for (const Plist& group : from.dictionariesAt("Groups")) {
    app.groups.push_back({group.textAt("Identifier"), group.textAt("Path")});
  }
  app.keychainGroups = from.textsAt("KeychainGroups");
  return app;
}

// Whoever follows the paths relies on it.
bool isOnPhone(const std::string& path) {
  return path.starts_with("/var/") && path.find("/../") == std::string::npos;
}

bool isSound(const App& app) {
  const bool groupsAre = std::all_of(app.groups.begin(), app.groups.end(),
                                     [](const Group& group) { return isOnPhone(group.path); });
  return groupsAre && isOnPhone(app.dataContainer) && isOnPhone(app.bundlePath) &&
         !app.identifier.empty() && !app.executable.empty();
}

}  // namespace

std::string varFolder(const std::string& dir) {
  return dir + "/var";
}
std::string descriptionFile(const std::string& dir) {
  return dir + "/phone.plist";
}

std::string formatDescription(const Description& description) {
  Plist apps = Plist::array();
  for (const App& app : description.apps)
    apps.add(formatApp(app));
  Plist made = Plist::dictionary();
  made.set("MorvanePhoneFormat", Plist::number(kFormat))
      .set("Seed", Plist::number(description.seed))
      .set("Files", Plist::number(description.files))
      .set("Apps", std::move(apps));
  return made.toXml();
}

Result readDescription(const std::string& dir, Description& description) {
  std::ifstream file(descriptionFile(dir), std::ios::binary);
  if (!file) return Result::failed(dir + " is not a phone: it has no readable phone.plist");
  std::ostringstream bytes;
  bytes << file.rdbuf();
  const Plist list = Plist::parse(bytes.str());
  if (list.numberAt("MorvanePhoneFormat") != kFormat) {
    return Result::failed(dir + " is not a phone of this format: see its phone.plist");
  }
  description.seed = list.numberAt("Seed");
  description.files = list.numberAt("Files");
  for (const Plist& from : list.dictionariesAt("Apps")) {
    App app = readApp(from);
    if (!isSound(app)) return Result::failed(dir + " is not a phone: its phone.plist is damaged");
    description.apps.push_back(std::move(app));
  }
  return {};
}

}  // namespace morvane::phone
