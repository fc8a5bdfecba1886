#include "phone/survey.h"

#include <fcntl.h>

#include <algorithm>
#include <filesystem>

#include "files/open.h"
#include "files/tree_walk.h"
#include "phone/keychain_writer.h"
#include "platform/linux/database.h"

namespace morvane::phone {
namespace {

namespace fs = std::filesystem;
using platform::Database;
using platform::DatabaseState;
using platform::Statement;

constexpr std::string_view kMetadataName = ".com.apple.mobile_container_manager.metadata.plist";

// Counts what is in a container, however deep and whatever it is called.
class Measure : public TreeVisitor {
 public:
  [[nodiscard]] const Extent& extent() const { return extent_; }

  void visitFile(int dirFd, const char* name, FileType type) override {
    if (depth_ == 0 && kMetadataName == name) return;
    ++extent_.files;
    const auto status = type == FileType::regular ? statusAt(dirFd, name) : std::nullopt;
    if (status) extent_.bytes += static_cast<std::uint64_t>(status->st_size);
  }
  Descend visitFolder(int, const char*) override { return Descend::yes; }
  Descend enteredFolder(const char*, int) override {
    ++depth_;
    return Descend::yes;
  }
  void leavingFolder(int) override { --depth_; }
  Again leftFolder(int, const char*) override { return Again::no; }
  void failed(const char*, int) override {}
  void lostFolder(int) override { --depth_; }

 private:
  Extent extent_;
  std::size_t depth_ = 0;
};

// Looks at one phone, whose /var is the folder `var`.
class Surveyor {
 public:
  explicit Surveyor(std::string var) : var_(std::move(var)) {}

  [[nodiscard]] AppSurvey surveyApp(const App& app, const KeychainCounts& keychain) const;
  [[nodiscard]] std::string countKeychain(KeychainCounts& counts) const;
  [[nodiscard]] std::vector<BackupSurvey> surveyBackups() const;

 private:
  [[nodiscard]] std::string onHost(const std::string& path) const { return var_ + path.substr(4); }
  [[nodiscard]] bool exists(const std::string& path) const {
    std::error_code ignored;
    return fs::exists(fs::symlink_status(onHost(path), ignored));
  }
  [[nodiscard]] Extent measure(const std::string& path) const;
  [[nodiscard]] PlaceSurvey surveyPlace(const std::string& path) const;
  [[nodiscard]] std::vector<std::string> tracesOf(const std::string& identifier) const;
  void findNotifications(const std::string& identifier, std::vector<std::string>& found) const;
  [[nodiscard]] std::vector<std::string> receiptsOf(const App& app) const;

  std::string var_;
};

Extent Surveyor::measure(const std::string& path) const {
  Measure measure;
  const UniqueFd top = openFolderAt(AT_FDCWD, onHost(path).c_str());
  if (top) TreeWalk(measure, platform::ReadUpTo::end).run(top.get());
  return measure.extent();
}

PlaceSurvey Surveyor::surveyPlace(const std::string& path) const {
  PlaceSurvey place{path, std::nullopt};
  if (exists(path)) place.extent = measure(path);
  return place;
}

std::vector<std::string> Surveyor::tracesOf(const std::string& identifier) const {
  std::vector<std::string> found;
  for (const char* folder :
       {"Caches", "HTTPStorages", "WebKit", "SpringBoard/PushStore", "Cookies"}) {
    for (const char* suffix : {"", ".binarycookies", ".pushstore"}) {
      std::string path = std::string("/var/mobile/Library/") + folder + "/" + identifier + suffix;
      if (exists(path)) found.push_back(std::move(path));
    }
  }
  findNotifications(identifier, found);
  return found;
}

// Whatever bears the app's name in the notification store, but nothing inside such a folder.
void Surveyor::findNotifications(const std::string& identifier,
                                 std::vector<std::string>& found) const {
  const std::string top = onHost("/var/mobile/Library/BulletinBoard");
  std::error_code ignored;
  fs::recursive_directory_iterator entry(top, ignored);
  for (; entry != fs::recursive_directory_iterator(); entry.increment(ignored)) {
    const std::string name = entry->path().filename().string();
    if (name != identifier && !name.starts_with(identifier + ".")) continue;
    found.push_back("/var" + entry->path().string().substr(var_.size()));
    entry.disable_recursion_pending();
  }
}

std::vector<std::string> Surveyor::receiptsOf(const App& app) const {
  const std::string bundleContainer = app.bundlePath.substr(0, app.bundlePath.rfind('/'));
  std::vector<std::string> found;
  for (const std::string& path :
       {app.dataContainer + "/StoreKit/receipt", app.dataContainer + "/StoreKit/sandboxReceipt",
        app.bundlePath + "/StoreKit/receipt", app.bundlePath + "/StoreKit/sandboxReceipt",
        bundleContainer + "/iTunesMetadata.plist"}) {
    if (exists(path)) found.push_back(path);
  }
  return found;
}

AppSurvey Surveyor::surveyApp(const App& app, const KeychainCounts& keychain) const {
  AppSurvey made;
  made.app = app;
  made.data = surveyPlace(app.dataContainer);
  for (const Group& group : app.groups)
    made.groups.push_back(surveyPlace(group.path));
  for (const std::string& group : app.keychainGroups) {
    const auto found = keychain.find(group);
    made.keychain[group] = found != keychain.end() ? found->second : KeychainCounts::mapped_type();
  }
  made.traces = tracesOf(app.identifier);
  made.receipts = receiptsOf(app);
  return made;
}

// Returns why the keychain cannot be read. None at all is an empty one.
std::string Surveyor::countKeychain(KeychainCounts& counts) const {
  Database database;
  switch (database.open(onHost(kKeychainPath).c_str(), Database::Access::read)) {
    case DatabaseState::good:
      break;
    case DatabaseState::absent:
      return {};
    default:
      return "cannot be opened";
  }
  const Statement statement = database.prepare(
      "SELECT agrp, 'genp', count(*) FROM genp GROUP BY 1"
      " UNION ALL SELECT agrp, 'inet', count(*) FROM inet GROUP BY 1"
      " UNION ALL SELECT agrp, 'keys', count(*) FROM keys GROUP BY 1"
      " UNION ALL SELECT agrp, 'cert', count(*) FROM cert GROUP BY 1"
      " UNION ALL SELECT cert.agrp, 'idnt', count(*) FROM cert JOIN keys ON keys.kcls = 1 AND"
      " keys.klbl = cert.pkhh AND keys.agrp = cert.agrp GROUP BY 1");
  std::string group;
  std::string itemClass;
  while (statement != nullptr && database.nextRow(statement)) {
    if (!columnText(statement, 0, group) || !columnText(statement, 1, itemClass)) continue;
    counts[group][itemClass] = static_cast<std::uint64_t>(sqlite3_column_int64(statement.get(), 2));
  }
  return database.state() == DatabaseState::good ? "" : "is locked or damaged";
}

std::vector<BackupSurvey> Surveyor::surveyBackups() const {
  const std::string store = "/var/mobile/MorvaneBackups";
  std::vector<BackupSurvey> backups;
  std::error_code ignored;
  for (const fs::directory_entry& entry : fs::directory_iterator(onHost(store), ignored)) {
    BackupSurvey backup;
    backup.name = entry.path().filename().string();
    backup.extent = measure(store + "/" + backup.name);
    for (const fs::directory_entry& app : fs::directory_iterator(entry.path(), ignored)) {
      if (app.is_directory(ignored)) backup.apps.push_back(app.path().filename().string());
    }
    std::sort(backup.apps.begin(), backup.apps.end());
    backups.push_back(std::move(backup));
  }
  std::sort(backups.begin(), backups.end(),
            [](const BackupSurvey& a, const BackupSurvey& b) { return a.name < b.name; });
  return backups;
}

}  // namespace

Result surveyPhone(const std::string& dir, Survey& survey) {
  if (Result r = readDescription(dir, survey.description); !r) return r;
  const Surveyor surveyor(varFolder(dir));
  KeychainCounts keychain;
  survey.keychainProblem = surveyor.countKeychain(keychain);
  for (const App& app : survey.description.apps) {
    survey.apps.push_back(surveyor.surveyApp(app, keychain));
  }
  survey.backups = surveyor.surveyBackups();
  return {};
}

}  // namespace morvane::phone
