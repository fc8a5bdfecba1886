#include "phone/contents.h"

#include <span>

#include "phone/plist.h"
#include "phone/random.h"
#include "phone/sqlite_writer.h"

namespace morvane::phone {
namespace {

constexpr const char* kMetadataName = ".com.apple.mobile_container_manager.metadata.plist";

enum class Kind { bytes, cookies, preferences, database, folder };

// A file of a container. In its path % is the identifier of the app or group, # a new UUID.
struct Entry {
  const char* path;
  Kind kind;
  std::size_t size = 0;
};

constexpr Entry kDataContainer[] = {
    {"Documents", Kind::folder},
    {"Library/Application Support/%/store.sqlite", Kind::database},
    {"Library/Caches/%/Cache.db", Kind::database},
    {"Library/Caches/%/fsCachedData/#", Kind::bytes, 18'000},
    {"Library/Caches/%/fsCachedData/#", Kind::bytes, 7'400},
    {"Library/Cookies/Cookies.binarycookies", Kind::cookies, 1'200},
    {"Library/Cookies/%.binarycookies", Kind::cookies, 900},
    {"Library/HTTPStorages/%/httpstorages.sqlite", Kind::database},
    {"Library/Preferences/%.plist", Kind::preferences},
    {"Library/Saved Application State/%.savedState/KnownSceneSessions/data.data", Kind::bytes, 600},
    {"Library/SplashBoard/Snapshots/% - {DEFAULT GROUP}/#@3x.ktx", Kind::bytes, 24'000},
    {"Library/SplashBoard/Snapshots/% - {DEFAULT GROUP}/downscaled/#@3x.ktx", Kind::bytes, 6'000},
    {"Library/WebKit/WebsiteData/LocalStorage/https_example.com_0.localstorage", Kind::database},
    {"StoreKit/receipt", Kind::bytes, 4'800},
    {"StoreKit/sandboxReceipt", Kind::bytes, 4'800},
    {"SystemData/com.apple.chrono/timelines/%/widget.chrono-timeline", Kind::bytes, 2'100},
    {"tmp/#.tmp", Kind::bytes, 3'300},
};

constexpr Entry kGroupContainer[] = {
    {"Library/Application Support/shared.sqlite", Kind::database},
    {"Library/Caches/#", Kind::bytes, 2'500},
    {"Library/Preferences/%.plist", Kind::preferences},
    {"session.archive", Kind::bytes, 1'400},
};

constexpr Entry kBundle[] = {
    {"PkgInfo", Kind::bytes, 8},
    {"Assets.car", Kind::bytes, 30'000},
    {"StoreKit/receipt", Kind::bytes, 4'800},
    {"StoreKit/sandboxReceipt", Kind::bytes, 4'800},
};

constexpr Entry kTraces[] = {
    {"BulletinBoard/%.plist", Kind::preferences},
    {"BulletinBoard/SectionInfo/%/settings.plist", Kind::preferences},
    {"BulletinBoard/SectionInfo/%/%.pushsettings", Kind::bytes, 300},
    {"Caches/%/Cache.db", Kind::database},
    {"Cookies/%.binarycookies", Kind::cookies, 700},
    {"HTTPStorages/%/httpstorages.sqlite", Kind::database},
    {"HTTPStorages/%.binarycookies", Kind::cookies, 500},
    {"SpringBoard/PushStore/%.pushstore", Kind::bytes, 1'900},
    {"WebKit/%/WebsiteData/IndexedDB/v1/https_example.com_0/IndexedDB.sqlite3", Kind::database},
};

constexpr Entry kSystem[] = {
    {"mobile/Library/BulletinBoard/VersionedSectionInfo.plist", Kind::preferences},
    {"mobile/Library/Cookies/Cookies.binarycookies", Kind::cookies, 2'600},
    {"mobile/Library/SMS/sms.db", Kind::database},
    {"mobile/Library/Safari/Bookmarks.db", Kind::database},
    {"mobile/Library/Safari/CloudTabs.db", Kind::database},
    {"mobile/Library/Safari/History.db", Kind::database},
    {"mobile/Library/Safari/PerSitePreferences.db", Kind::database},
    {"mobile/Library/Safari/Downloads.plist", Kind::preferences},
    {"mobile/Library/WebKit/WebsiteData/LocalStorage/https_example.org_0.localstorage",
     Kind::database},
    {"mobile/Media/DCIM/100APPLE/IMG_0001.HEIC", Kind::bytes, 60'000},
    {"mobile/Media/DCIM/100APPLE/IMG_0002.HEIC", Kind::bytes, 52'000},
    {"run", Kind::folder},
    {"tmp", Kind::folder},
};

std::string expand(const std::string& path, const std::string& identifier, Random& random) {
  std::string made;
  for (const char c : path) {
    if (c == '%') {
      made += identifier;
    } else if (c == '#') {
      made += random.uuid();
    } else {
      made += c;
    }
  }
  return made;
}

std::string preferences(const std::string& identifier, Random& random) {
  return Plist::dictionary()
      .set("AccountIdentifier", Plist::text(random.uuid()))
      .set("BundleIdentifier", Plist::text(identifier))
      .set("LaunchCount", Plist::number(random.below(900)))
      .set("HasLoggedIn", Plist::yes())
      .set("Token", Plist::data(random.bytes(96)))
      .toBinary();
}

Result fillDatabase(const std::string& path, Random& random) {
  SqliteWriter file;
  if (Result r = file.open(path, SqliteWriter::Log::kept); !r) return r;
  if (Result r = file.run("CREATE TABLE entry (id INTEGER PRIMARY KEY, name TEXT, value BLOB)");
      !r) {
    return r;
  }
  constexpr std::int64_t kRows = 24;
  for (std::int64_t row = 0; row < kRows; ++row) {
    // The first half ends up in the file itself, the rest stays in the log.
    if (row == kRows / 2) {
      if (Result r = file.run("PRAGMA wal_checkpoint(TRUNCATE)"); !r) return r;
    }
    const std::string name = random.uuid();
    const std::string value = random.bytes(100 + random.below(300));
    if (Result r = file.run("INSERT INTO entry VALUES (?, ?, ?)", {row, name, Bytes(value)}); !r) {
      return r;
    }
  }
  return {};
}

void buildDatabase(Builder& builder, const std::string& path, Random& random) {
  builder.folder(path.substr(0, path.rfind('/')));
  if (!builder.working()) return;
  builder.require(fillDatabase(builder.onHost(path), random));
  for (const char* suffix : {"", "-wal", "-shm"})
    builder.adopt(path + suffix);
}

void buildEntries(Builder& builder, const std::string& base, std::span<const Entry> entries,
                  const std::string& identifier, Random& random) {
  for (const Entry& entry : entries) {
    const std::string path = base + "/" + expand(entry.path, identifier, random);
    switch (entry.kind) {
      case Kind::bytes:
        builder.file(path, random.bytes(entry.size));
        break;
      case Kind::cookies:
        builder.file(path, "cook" + random.bytes(entry.size));
        break;
      case Kind::preferences:
        builder.file(path, preferences(identifier, random), 0600);
        break;
      case Kind::database:
        buildDatabase(builder, path, random);
        break;
      case Kind::folder:
        builder.folder(path);
        break;
    }
  }
}

// What the container manager puts at the top of a container. The classes are its own numbers.
enum class ContentClass : std::uint64_t { bundle = 1, data = 2, group = 7 };

void buildMetadata(Builder& builder, const std::string& container, const std::string& identifier,
                   ContentClass contentClass) {
  const std::string uuid = container.substr(container.rfind('/') + 1);
  Plist list = Plist::dictionary();
  list.set("MCMMetadataContentClass", Plist::number(static_cast<std::uint64_t>(contentClass)))
      .set("MCMMetadataIdentifier", Plist::text(identifier))
      .set("MCMMetadataInfo", Plist::dictionary())
      .set("MCMMetadataSchemaVersion", Plist::number(1))
      .set("MCMMetadataUUID", Plist::text(uuid))
      .set("MCMMetadataUserIdentity",
           std::move(Plist::dictionary().set("posixUID", Plist::number(501))));
  builder.file(container + "/" + kMetadataName, list.toBinary());
}

// A dozen files to a folder and sixteen folders to one above, as media stores lay them out.
void buildDocuments(Builder& builder, const std::string& documents, std::uint64_t files,
                    Random& random) {
  constexpr std::uint64_t kFilesInFolder = 12;
  constexpr std::uint64_t kFoldersInFolder = 16;
  for (std::uint64_t i = 0; i < files && builder.working(); ++i) {
    const std::uint64_t folder = i / kFilesInFolder;
    const std::string path = documents + "/media/" + std::to_string(folder / kFoldersInFolder) +
                             "/" + std::to_string(folder) + "/IMG_" + std::to_string(i) + ".jpg";
    builder.file(path, random.bytes(1024 + random.below(3072)));
    if (i % 10 == 0) builder.attribute(path, "user.com.apple.lastuseddate#PS", random.bytes(16));
  }
}

}  // namespace

void buildDataContainer(Builder& builder, const App& app, std::uint64_t seed, std::uint64_t files) {
  Random random(seed, "data of " + app.identifier);
  buildMetadata(builder, app.dataContainer, app.identifier, ContentClass::data);
  buildEntries(builder, app.dataContainer, kDataContainer, app.identifier, random);
  buildDocuments(builder, app.dataContainer + "/Documents", files, random);
}

void buildGroupContainer(Builder& builder, const Group& group, std::uint64_t seed) {
  if (builder.has(group.path)) return;
  Random random(seed, "group " + group.identifier);
  buildMetadata(builder, group.path, group.identifier, ContentClass::group);
  buildEntries(builder, group.path, kGroupContainer, group.identifier, random);
}

void buildBundle(Builder& builder, const App& app, std::uint64_t seed) {
  Random random(seed, "bundle of " + app.identifier);
  const std::string container = app.bundlePath.substr(0, app.bundlePath.rfind('/'));
  buildMetadata(builder, container, app.identifier, ContentClass::bundle);
  buildEntries(builder, app.bundlePath, kBundle, app.identifier, random);
  builder.file(app.bundlePath + "/" + app.executable, "", 0755);
  Plist info = Plist::dictionary();
  info.set("CFBundleDisplayName", Plist::text(app.name))
      .set("CFBundleExecutable", Plist::text(app.executable))
      .set("CFBundleIdentifier", Plist::text(app.identifier));
  builder.file(app.bundlePath + "/Info.plist", info.toBinary());
  Plist store = Plist::dictionary();
  store.set("itemName", Plist::text(app.name))
      .set("itemId", Plist::number(random.below(2'000'000'000)))
      .set("softwareVersionBundleId", Plist::text(app.identifier));
  builder.file(container + "/iTunesMetadata.plist", store.toBinary());
}

void buildTraces(Builder& builder, const App& app, std::uint64_t seed) {
  Random random(seed, "traces of " + app.identifier);
  buildEntries(builder, "/var/mobile/Library", kTraces, app.identifier, random);
}

void buildSystem(Builder& builder, std::uint64_t seed) {
  Random random(seed, "system");
  buildEntries(builder, "/var", kSystem, "com.apple.system", random);
}

}  // namespace morvane::phone
