#include "platform/app_record.h"

#include "platform/linux/database.h"

namespace morvane::platform {
namespace {

// The simulated phone's store of installed apps. A column that is not a text is a property that the
// record does not answer.
constexpr const char* kRecordsPath = "/var/db/records.db";

std::optional<std::string> optionalText(const Statement& statement, int column) {
  std::string text;
  if (!columnText(statement, column, text)) return std::nullopt;
  return text;
}

std::vector<AppGroup> appGroups(Database& database, const std::string& bundleId) {
  std::vector<AppGroup> groups;
  const Statement statement = database.prepare(
      "SELECT identifier, path FROM app_group WHERE bundle_id COLLATE BINARY = ? ORDER BY rowid");
  if (statement == nullptr) return groups;
  bindText(statement, 1, bundleId);
  while (database.nextRow(statement)) {
    groups.push_back({optionalText(statement, 0), optionalText(statement, 1)});
  }
  return groups;
}

}  // namespace

std::optional<AppRecord> appRecord(const std::string& bundleId) {
  Database database;
  if (database.open(kRecordsPath, Database::Access::read) != DatabaseState::good) {
    return std::nullopt;
  }
  const Statement statement = database.prepare(
      "SELECT data_container, bundle_path, team_identifier FROM app"
      " WHERE bundle_id COLLATE BINARY = ?");
  if (statement == nullptr) return std::nullopt;
  bindText(statement, 1, bundleId);
  if (!database.nextRow(statement)) return std::nullopt;
  AppRecord record;
  record.dataContainer = optionalText(statement, 0);
  record.bundlePath = optionalText(statement, 1);
  record.teamIdentifier = optionalText(statement, 2);
  record.groups = appGroups(database, bundleId);
  return record;
}

}  // namespace morvane::platform
