#include "phone/catalogue.h"

#include <algorithm>

#include "phone/random.h"

namespace morvane::phone {
namespace {

constexpr std::size_t kLongestIdentifier = 155;  // room for " - {DEFAULT GROUP}" and ".savedState"

// Keychain groups of every sort: entitled to the tool and not, an app's own and shared by several,
// and such as extend an app's own.
const std::vector<App>& knownApps() {
  static const std::vector<App> apps = {
      {.identifier = "com.facebook.Facebook",
       .name = "Facebook",
       .executable = "Facebook",
       .team = "T84QZS65DQ",
       .groups = {{"group.com.facebook.Facebook", ""}, {"group.com.facebook.family", ""}},
       .keychainGroups = {"T84QZS65DQ.platformFamily", "T84QZS65DQ.com.facebook.Facebook",
                          "QM4XR7ZD2N.com.facebook.Facebook", "group.com.facebook.family"}},
      {.identifier = "com.facebook.Messenger",
       .name = "Messenger",
       .executable = "Messenger",
       .team = "T84QZS65DQ",
       .groups = {{"group.com.facebook.Messenger", ""},
                  {"group.com.facebook.family", ""},
                  {"group.com.facebook.msysstorage", ""}},
       .keychainGroups = {"T84QZS65DQ.platformFamily", "T84QZS65DQ.com.facebook.Messenger",
                          "T84QZS65DQ.com.facebook.Messenger.ShareExtension",
                          "group.com.facebook.msysstorage"}},
      {.identifier = "com.burbn.instagram",
       .name = "Instagram",
       .executable = "Instagram",
       .team = "T84QZS65DQ",
       .groups = {{"group.com.burbn.instagram", ""}, {"group.com.instagram.shared", ""}},
       .keychainGroups = {"T84QZS65DQ.platformFamily", "T84QZS65DQ.com.burbn.instagram",
                          "group.com.burbn.instagram"}},
      {.identifier = "com.zhiliaoapp.musically",
       .name = "TikTok",
       .executable = "musically",
       .team = "MJ797D8U6F",
       .groups = {{"group.com.zhiliaoapp.musically", ""}},
       .keychainGroups = {"MJ797D8U6F.com.ss.iphone.ugc.Ame", "MJ797D8U6F.com.zhiliaoapp.musically",
                          "group.com.zhiliaoapp.musically"}},
      {.identifier = kSafariIdentifier,
       .name = "Safari",
       .executable = "MobileSafari",
       .team = "0000000000",
       .groups = {{"group.com.apple.mobilesafari", ""}},
       .keychainGroups = {"com.apple.cfnetwork", "com.apple.safari.credit-cards"}},
      {.identifier = "org.example.FieldNotesCompanion",
       .name = "Field Notes",
       .executable = "FieldNotesCompanion",
       .team = "K7N3WQ5XTD",
       .groups = {{"group.org.example.FieldNotesCompanion", ""}},
       .keychainGroups = {"K7N3WQ5XTD.org.example.FieldNotesCompanion"}}};
  return apps;
}

App usualApp(const std::string& identifier, Random& random) {
  App app;
  app.identifier = identifier;
  app.name = identifier.substr(identifier.rfind('.') + 1);
  if (app.name.empty()) app.name = identifier;
  app.executable = app.name;
  app.team = random.pick(10, "ABCDEFGHJKLMNPQRSTUVWXYZ23456789");
  app.groups = {{"group." + identifier, ""}};
  app.keychainGroups = {app.team + "." + identifier, "group." + identifier};
  return app;
}

}  // namespace

std::vector<std::string> defaultApps() {
  std::vector<std::string> identifiers;
  for (const App& app : knownApps())
    identifiers.push_back(app.identifier);
  return identifiers;
}

bool isPossibleIdentifier(std::string_view identifier) {
  constexpr std::string_view kAllowed =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-";
  return !identifier.empty() && identifier.size() <= kLongestIdentifier &&
         identifier.find_first_not_of(kAllowed) == std::string_view::npos &&
         identifier.find("..") == std::string_view::npos && identifier.front() != '.';
}

App describeApp(const std::string& identifier, std::uint64_t seed) {
  Random random(seed, "places of " + identifier);
  const auto& known = knownApps();
  const auto found = std::find_if(known.begin(), known.end(), [&](const App& candidate) {
    return candidate.identifier == identifier;
  });
  App app = found != known.end() ? *found : usualApp(identifier, random);
  app.dataContainer = "/var/mobile/Containers/Data/Application/" + random.uuid();
  app.bundlePath =
      "/var/containers/Bundle/Application/" + random.uuid() + "/" + app.executable + ".app";
  for (Group& group : app.groups) {
    // Of the group alone: the apps that share it share the container.
    Random ofGroup(seed, "place of " + group.identifier);
    group.path = "/var/mobile/Containers/Shared/AppGroup/" + ofGroup.uuid();
  }
  return app;
}

}  // namespace morvane::phone
