#include "reset/keychain_groups.h"

#include <algorithm>
#include <initializer_list>
#include <string_view>

#include "platform/app_record.h"

namespace morvane {
namespace {

using GroupList = std::initializer_list<std::string_view>;

/// A list that takes each group once and keeps the order, so that the log is reproducible.
class GroupSet {
 public:
  void add(std::string_view group) {
    if (std::find(groups_.begin(), groups_.end(), group) == groups_.end()) {
      groups_.emplace_back(group);
    }
  }
  void addAll(GroupList groups) {
    for (const std::string_view group : groups)
      add(group);
  }
  [[nodiscard]] std::vector<std::string> take() { return std::move(groups_); }

 private:
  std::vector<std::string> groups_;
};

void addFamilyGroups(std::string_view bundleId, GroupSet& groups) {
  if (bundleId == "com.facebook.Facebook" || bundleId == "com.facebook.Messenger" ||
      bundleId == "com.facebook.Orca") {
    groups.addAll({"T84QZS65DQ.platformFamily", "group.com.facebook.family",
                   "group.com.facebook.Facebook", "group.com.facebook.msysstorage",
                   "T84QZS65DQ.com.facebook.Facebook"});
  } else if (bundleId == "com.burbn.instagram") {
    // The first has no "group." here: this family's keychain group is named so.
    groups.addAll({"com.facebook.family", "group.com.burbn.instagram", "group.com.instagram.shared",
                   "T84QZS65DQ.platformFamily"});
  } else if (bundleId == "com.zhiliaoapp.musically" ||
             bundleId.starts_with("com.ss.iphone.ugc.Aweme")) {
    groups.add("group.com.zhiliaoapp.musically");
  }
}

void addTeamGroups(const std::string& ownGroup, GroupSet& groups) {
  groups.add(ownGroup);
  const std::string prefix = ownGroup + ".";
  for (const platform::ItemClass itemClass : KC_CLASSES) {
    const platform::KeychainItems items = platform::listKeychainItems(itemClass, std::nullopt);
    if (items.status != platform::kKeychainSuccess) continue;
    for (const std::string& group : items.accessGroups) {
      if (group == ownGroup || group.starts_with(prefix)) groups.add(group);
    }
  }
}

}  // namespace

std::vector<std::string> kcGroupsForBundle(const std::string& bundleId) {
  GroupSet groups;
  addFamilyGroups(bundleId, groups);
  if (bundleId.starts_with("com.apple.")) return groups.take();
  const std::optional<platform::AppRecord> record = platform::appRecord(bundleId);
  if (!record) return groups.take();
  for (const platform::AppGroup& group : record->groups) {
    if (group.identifier && !group.identifier->empty()) groups.add(*group.identifier);
  }
  if (record->teamIdentifier && !record->teamIdentifier->empty()) {
    addTeamGroups(*record->teamIdentifier + "." + bundleId, groups);
  }
  return groups.take();
}

}  // namespace morvane
