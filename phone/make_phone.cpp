#include "phone/make_phone.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "phone/catalogue.h"
#include "phone/contents.h"
#include "phone/keychain_writer.h"
#include "phone/record_writer.h"

namespace morvane::phone {
namespace {

Result addKeychainGroup(KeychainWriter& keychain, const std::string& group, const App& app) {
  constexpr const char* kItems[] = {"genp", "genp", "inet", "keys", "cert", "idnt"};
  int number = 0;
  for (const char* itemClass : kItems) {
    const std::string label = app.name + " " + itemClass + " " + std::to_string(++number);
    if (Result r = keychain.add(itemClass, group, label); !r) return r;
  }
  return {};
}

Result fillKeychain(const std::string& path, const Description& description) {
  KeychainWriter keychain;
  if (Result r = keychain.open(path); !r) return r;
  for (const App& app : description.apps) {
    for (const std::string& group : app.keychainGroups) {
      if (Result r = addKeychainGroup(keychain, group, app); !r) return r;
    }
  }
  return {};
}

Result fillRecords(const std::string& path, const Description& description) {
  RecordWriter records;
  if (Result r = records.open(path); !r) return r;
  for (const App& app : description.apps) {
    platform::AppRecord record;
    record.dataContainer = app.dataContainer;
    record.bundlePath = app.bundlePath;
    record.teamIdentifier = app.team;
    for (const Group& group : app.groups)
      record.groups.push_back({group.identifier, group.path});
    if (Result r = records.put(app.identifier, record); !r) return r;
  }
  return {};
}

Result writeDescription(const std::string& dir, const Description& description) {
  std::ofstream file(descriptionFile(dir), std::ios::binary);
  file << formatDescription(description);
  file.close();
  return file ? Result() : Result::failed("cannot write " + descriptionFile(dir));
}

Result buildIn(const std::string& folder, const PhoneOptions& options,
               const volatile std::sig_atomic_t* interrupted, std::set<std::string>& notes) {
  if (mkdir(varFolder(folder).c_str(), 0755) != 0) {
    return Result::failed("make", varFolder(folder), errno);
  }
  const Description description = describePhone(options);
  Builder builder(varFolder(folder), options.seed, interrupted);
  Result built = buildPhone(builder, description);
  if (built) built = writeDescription(folder, description);
  if (built && chmod(folder.c_str(), 0755) != 0) {
    return Result::failed("set the mode of", folder, errno);
  }
  notes = builder.notes();
  return built;
}

// Never over anything, not even over an empty folder where the file system can tell.
Result publish(const std::string& from, const std::string& to) {
  if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return {};
  if (errno == EINVAL && rename(from.c_str(), to.c_str()) == 0) return {};
  return Result::failed("make", to, errno);
}

}  // namespace

Description describePhone(const PhoneOptions& options) {
  Description description;
  description.seed = options.seed;
  description.files = options.files;
  for (const std::string& identifier : options.apps.empty() ? defaultApps() : options.apps) {
    description.apps.push_back(describeApp(identifier, options.seed));
  }
  return description;
}

Result buildPhone(Builder& builder, const Description& description) {
  const std::uint64_t seed = description.seed;
  const SeededSqlite seeded(seed);
  buildSystem(builder, seed);
  for (const App& app : description.apps) {
    buildDataContainer(builder, app, seed, description.files);
    for (const Group& group : app.groups)
      buildGroupContainer(builder, group, seed);
    buildBundle(builder, app, seed);
    buildTraces(builder, app, seed);
  }
  builder.folder("/var/Keychains");
  builder.folder("/var/db");
  if (builder.working()) builder.require(fillKeychain(builder.onHost(kKeychainPath), description));
  if (builder.working()) builder.require(fillRecords(builder.onHost(kRecordsPath), description));
  builder.adopt(kKeychainPath);
  builder.adopt(kRecordsPath);
  return builder.finish();
}

Result makePhone(const std::string& dir, const PhoneOptions& options,
                 const volatile std::sig_atomic_t* interrupted, std::set<std::string>& notes) {
  struct stat status = {};
  if (lstat(dir.c_str(), &status) == 0) return Result::failed(dir + " exists already");
  const std::filesystem::path target(dir);
  std::string draft = target.parent_path() / ("." + target.filename().string() + ".XXXXXX");
  if (mkdtemp(draft.data()) == nullptr) return Result::failed("make", dir, errno);
  Result made = buildIn(draft, options, interrupted, notes);
  if (made) made = publish(draft, dir);
  if (!made) {
    std::error_code ignored;
    std::filesystem::remove_all(draft, ignored);
  }
  return made;
}

}  // namespace morvane::phone
