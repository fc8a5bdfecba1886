#include <nlohmann/json.hpp>

#include "phone/show.h"

namespace morvane::phone {
namespace {

using Json = nlohmann::ordered_json;

Json extentOf(const Extent& extent) {
  return {{"files", extent.files}, {"bytes", extent.bytes}};
}

Json placeOf(const PlaceSurvey& place) {
  Json made = {{"path", place.path}, {"exists", place.extent.has_value()}};
  made.update(extentOf(place.extent.value_or(Extent())));
  return made;
}

Json appOf(const AppSurvey& app) {
  Json groups = Json::array();
  for (std::size_t i = 0; i < app.groups.size(); ++i) {
    Json group = {{"identifier", app.app.groups[i].identifier}};
    group.update(placeOf(app.groups[i]));
    groups.push_back(std::move(group));
  }
  return {{"identifier", app.app.identifier},
          {"name", app.app.name},
          {"team", app.app.team},
          {"bundle", app.app.bundlePath},
          {"data", placeOf(app.data)},
          {"groups", std::move(groups)},
          {"keychain", app.keychain},
          {"traces", app.traces},
          {"receipts", app.receipts}};
}

}  // namespace

std::string showAsJson(const Survey& survey) {
  Json apps = Json::array();
  for (const AppSurvey& app : survey.apps)
    apps.push_back(appOf(app));
  Json backups = Json::array();
  for (const BackupSurvey& backup : survey.backups) {
    Json made = {{"name", backup.name}, {"apps", backup.apps}};
    made.update(extentOf(backup.extent));
    backups.push_back(std::move(made));
  }
  const Json phone = {{"seed", survey.description.seed},
                      {"keychainProblem", survey.keychainProblem},
                      {"apps", std::move(apps)},
                      {"backups", std::move(backups)}};
  return phone.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

}  // namespace morvane::phone
