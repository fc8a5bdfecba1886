#include "phone/record_writer.h"

namespace morvane::phone {
namespace {

SqlValue orNothing(const std::optional<std::string>& text) {
  if (!text) return std::monostate();
  return std::string_view(*text);
}

}  // namespace

Result RecordWriter::open(const std::string& path) {
  if (Result r = file_.open(path); !r) return r;
  if (Result r = file_.run("CREATE TABLE IF NOT EXISTS app (bundle_id TEXT PRIMARY KEY,"
                           " data_container TEXT, bundle_path TEXT, team_identifier TEXT)");
      !r) {
    return r;
  }
  return file_.run(
      "CREATE TABLE IF NOT EXISTS app_group (bundle_id TEXT NOT NULL, identifier TEXT, path TEXT)");
}

Result RecordWriter::put(const std::string& identifier, const platform::AppRecord& record) {
  if (Result r = remove(identifier); !r) return r;
  if (Result r = file_.run("INSERT INTO app VALUES (?, ?, ?, ?)",
                           {identifier, orNothing(record.dataContainer),
                            orNothing(record.bundlePath), orNothing(record.teamIdentifier)});
      !r) {
    return r;
  }
  for (const platform::AppGroup& group : record.groups) {
    if (Result r = file_.run("INSERT INTO app_group VALUES (?, ?, ?)",
                             {identifier, orNothing(group.identifier), orNothing(group.path)});
        !r) {
      return r;
    }
  }
  return {};
}

Result RecordWriter::remove(const std::string& identifier) {
  if (Result r = file_.run("DELETE FROM app WHERE bundle_id = ?", {identifier}); !r) return r;
  return file_.run("DELETE FROM app_group WHERE bundle_id = ?", {identifier});
}

}  // namespace morvane::phone
