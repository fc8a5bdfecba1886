#include <algorithm>
#include <cstdio>

#include "phone/show.h"
#include "platform/linux/entitlements.h"

namespace morvane::phone {
namespace {

// "1 file", "12 files".
std::string counted(std::uint64_t count, const std::string& noun) {
  return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

std::string sized(std::uint64_t bytes) {
  constexpr const char* kUnits[] = {"B", "kB", "MB", "GB", "TB"};
  double value = static_cast<double>(bytes);
  std::size_t unit = 0;
  for (; value >= 1000 && unit + 1 < std::size(kUnits); ++unit)
    value /= 1000;
  char text[32];
  std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", value, kUnits[unit]);
  return text;
}

std::string describeExtent(const Extent& extent) {
  return extent.files == 0 ? "empty" : counted(extent.files, "file") + ", " + sized(extent.bytes);
}

// A line of a block: its label, then the text. A name that an app has made must not be able to
// command the terminal.
void addLine(std::string& out, const std::string& label, const std::string& text) {
  out += "  " + label + std::string(label.size() < 9 ? 10 - label.size() : 2, ' ');
  for (const char c : text)
    out += static_cast<unsigned char>(c) < 0x20 || c == 0x7f ? '?' : c;
  out += "\n";
}

std::string lastComponent(const std::string& path) {
  return path.substr(path.rfind('/') + 1);
}

void addPlace(std::string& out, const std::string& label, const PlaceSurvey& place,
              const std::string& name) {
  addLine(out, label, name + "  " + (place.extent ? describeExtent(*place.extent) : "not there"));
}

bool isEntitled(const std::string& group) {
  const auto& groups = platform::kEntitledGroups;
  return std::find(groups.begin(), groups.end(), group) != groups.end();
}

std::string describeItems(const KeychainCounts::mapped_type& counts) {
  std::string text;
  for (const char* itemClass : {"genp", "inet", "keys", "cert", "idnt"}) {
    const auto found = counts.find(itemClass);
    if (found == counts.end()) continue;
    text +=
        (text.empty() ? "" : " ") + std::string(itemClass) + " " + std::to_string(found->second);
  }
  return text.empty() ? "none" : text;
}

void addKeychain(std::string& out, const AppSurvey& app) {
  std::string label = "keychain";
  for (const auto& [group, counts] : app.keychain) {
    const char* reach = isEntitled(group) ? "" : "  (not entitled)";
    addLine(out, label, group + "  " + describeItems(counts) + reach);
    label.clear();
  }
}

// The folders of the system that hold traces of the app, each once.
std::string describeTraces(const std::vector<std::string>& traces) {
  if (traces.empty()) return "none";
  constexpr std::string_view kLibrary = "/var/mobile/Library/";
  std::string text = std::to_string(traces.size()) + " in ";
  std::string last;
  for (const std::string& path : traces) {
    const std::string folder =
        path.substr(kLibrary.size(), path.find('/', kLibrary.size()) - kLibrary.size());
    if (folder != last) text += (last.empty() ? "" : ", ") + folder;
    last = folder;
  }
  return text;
}

void addApp(std::string& out, const AppSurvey& app) {
  out += "\n" + app.app.identifier + "  (" + app.app.name + ")\n";
  addPlace(out, "data", app.data, lastComponent(app.app.dataContainer));
  for (std::size_t i = 0; i < app.groups.size(); ++i) {
    addPlace(out, i == 0 ? "groups" : "", app.groups[i], app.app.groups[i].identifier);
  }
  addKeychain(out, app);
  addLine(out, "traces", describeTraces(app.traces));
  addLine(out, "receipts", app.receipts.empty() ? "none" : std::to_string(app.receipts.size()));
}

}  // namespace

std::string showAsText(const Survey& survey) {
  std::string out = "phone of seed " + std::to_string(survey.description.seed) + " with " +
                    counted(survey.apps.size(), "app") + "\n";
  if (!survey.keychainProblem.empty()) out += "its keychain " + survey.keychainProblem + "\n";
  for (const AppSurvey& app : survey.apps)
    addApp(out, app);
  out += "\nbackups\n";
  for (const BackupSurvey& backup : survey.backups) {
    std::string apps;
    for (const std::string& app : backup.apps)
      apps += (apps.empty() ? "" : ", ") + app;
    addLine(out, backup.name, describeExtent(backup.extent) + "  " + apps);
  }
  if (survey.backups.empty()) out += "  none\n";
  return out;
}

}  // namespace morvane::phone
