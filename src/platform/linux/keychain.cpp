#include "platform/keychain.h"

#include <algorithm>
#include <string_view>

#include "platform/linux/database.h"
#include "platform/linux/entitlements.h"

namespace morvane::platform {
namespace {

constexpr const char* kKeychainPath = "/var/Keychains/keychain-2.db";

// What the phone's calls answer in the same case (Security/SecBase.h).
constexpr KeychainStatus kIoError = -36;                   // errSecIO
constexpr KeychainStatus kNotAvailable = -25291;           // errSecNotAvailable
constexpr KeychainStatus kInteractionNotAllowed = -25308;  // errSecInteractionNotAllowed

// An identity is no row of its own: it is a certificate together with the private key (kcls 1)
// whose label is the hash of the certificate's public key.
constexpr std::string_view kIdentityRows =
    "main.cert AS item JOIN main.keys AS private ON private.kcls = 1"
    " AND private.klbl = item.pkhh AND private.agrp = item.agrp";

std::string rowsOf(ItemClass itemClass) {
  if (itemClass == ItemClass::identity) return std::string(kIdentityRows);
  return "main." + itemClassCode(itemClass) + " AS item";
}

bool isEntitled(std::string_view accessGroup) {
  return std::find(kEntitledGroups.begin(), kEntitledGroups.end(), accessGroup) !=
         kEntitledGroups.end();
}

KeychainStatus statusOf(DatabaseState state) {
  switch (state) {
    case DatabaseState::good:
      return kKeychainSuccess;
    case DatabaseState::absent:
      return kKeychainItemNotFound;
    case DatabaseState::locked:
      return kInteractionNotAllowed;
    case DatabaseState::unreadable:
      return kIoError;
    case DatabaseState::damaged:
      break;
  }
  return kNotAvailable;
}

// The rows whose group is one of as many parameters, whatever collation the file declares, oldest
// first.
std::string selectGroups(ItemClass itemClass, std::size_t parameters) {
  std::string sql =
      "SELECT item.agrp FROM " + rowsOf(itemClass) + " WHERE item.agrp COLLATE BINARY IN (?";
  for (std::size_t i = 1; i < parameters; ++i)
    sql += ",?";
  return sql + ") ORDER BY item.rowid";
}

bool runForGroup(Database& database, std::string_view sql, std::string_view accessGroup) {
  const Statement statement = database.prepare(sql);
  if (statement == nullptr) return false;
  bindText(statement, 1, accessGroup);
  while (database.nextRow(statement)) {
  }
  return database.state() == DatabaseState::good;
}

bool deleteRows(Database& database, ItemClass itemClass, std::string_view accessGroup) {
  return runForGroup(
      database, "DELETE FROM main." + itemClassCode(itemClass) + " WHERE agrp COLLATE BINARY = ?",
      accessGroup);
}

// Both halves go, so which ones they are has to be known before the first is deleted.
bool deleteIdentities(Database& database, std::string_view accessGroup) {
  const std::string select =
      "CREATE TEMP TABLE gone AS SELECT item.rowid AS certificate,"
      " private.rowid AS key FROM " +
      rowsOf(ItemClass::identity) + " WHERE item.agrp COLLATE BINARY = ?";
  return database.run("PRAGMA temp_store = MEMORY") && database.run("BEGIN IMMEDIATE") &&
         runForGroup(database, select, accessGroup) &&
         database.run("DELETE FROM main.keys WHERE rowid IN (SELECT key FROM temp.gone)") &&
         database.run("DELETE FROM main.cert WHERE rowid IN (SELECT certificate FROM temp.gone)");
}

}  // namespace

std::string itemClassCode(ItemClass itemClass) {
  switch (itemClass) {
    case ItemClass::genericPassword:
      return "genp";
    case ItemClass::internetPassword:
      return "inet";
    case ItemClass::key:
      return "keys";
    case ItemClass::certificate:
      return "cert";
    case ItemClass::identity:
      break;
  }
  return "idnt";
}

KeychainStatus deleteKeychainItems(ItemClass itemClass, const std::string& accessGroup) {
  if (!isEntitled(accessGroup)) return kKeychainMissingEntitlement;
  Database database;
  if (database.open(kKeychainPath, Database::Access::write) != DatabaseState::good) {
    return statusOf(database.state());
  }
  if (itemClass == ItemClass::identity) {
    if (!deleteIdentities(database, accessGroup)) return statusOf(database.state());
    const bool deleted = database.changedRows() > 0;
    if (!database.run("COMMIT")) return statusOf(database.state());
    return deleted ? kKeychainSuccess : kKeychainItemNotFound;
  }
  if (!deleteRows(database, itemClass, accessGroup)) return statusOf(database.state());
  return database.changedRows() > 0 ? kKeychainSuccess : kKeychainItemNotFound;
}

KeychainItems listKeychainItems(ItemClass itemClass,
                                const std::optional<std::string>& accessGroup) {
  KeychainItems items;
  if (accessGroup && !isEntitled(*accessGroup)) {
    items.status = kKeychainMissingEntitlement;
    return items;
  }
  Database database;
  if (database.open(kKeychainPath, Database::Access::write) != DatabaseState::good) {
    items.status = statusOf(database.state());
    return items;
  }
  const std::string_view one = accessGroup ? std::string_view(*accessGroup) : std::string_view();
  const auto searched = accessGroup ? std::span<const std::string_view>(&one, 1) : kEntitledGroups;
  const Statement statement = database.prepare(selectGroups(itemClass, searched.size()));
  for (std::size_t i = 0; i < searched.size() && statement != nullptr; ++i) {
    bindText(statement, static_cast<int>(i) + 1, searched[i]);
  }
  std::string group;
  while (statement != nullptr && database.nextRow(statement)) {
    if (columnText(statement, 0, group)) items.accessGroups.push_back(group);
  }
  if (database.state() != DatabaseState::good) {
    items.accessGroups.clear();
    items.status = statusOf(database.state());
    return items;
  }
  items.count = items.accessGroups.size();
  items.status = items.count > 0 ? kKeychainSuccess : kKeychainItemNotFound;
  return items;
}

}  // namespace morvane::platform
