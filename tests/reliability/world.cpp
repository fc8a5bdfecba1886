#include "reliability/world.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <sstream>

#include "phone/keychain_writer.h"
#include "platform/keychain.h"
#include "support/case.h"

namespace morvane::test {
namespace {

constexpr const char* kContainer = "/var/mobile/Containers/Data/Application/A";
constexpr const char* kGroup = "/var/mobile/Containers/Shared/AppGroup/G";
constexpr const char* kAccessGroup = "T84QZS65DQ.platformFamily";

void putBackup(const std::string& name, const std::string& mark) {
  const std::string path = std::string(kStore) + "/" + name;
  put(path + "/manifest.txt", kApp);
  put(path + "/" + kApp + "/Documents/" + mark, mark);
  put(path + "/" + kApp + "/Documents/folder/" + mark, mark);
  putLink(path + "/" + kApp + "/Documents/link", mark);
  put(path + "/" + kApp + "/Library/" + mark, mark);
}

void putSparseFile(const std::string& path) {
  put(path, "start");
  EXPECT_EQ(::truncate(path.c_str(), 300000), 0);
}

/// The bytes of a keychain file.
const std::string& keychainFile() {
  static const std::string bytes = [] {
    const std::string path = caseFolder() + "/keychain";
    phone::KeychainWriter keychain;
    EXPECT_TRUE(keychain.open(path) && keychain.add("genp", kAccessGroup, "password") &&
                keychain.add("idnt", kAccessGroup, "identity"));
    return contentOf(path);
  }();
  return bytes;
}

std::string keychainItems() {
  std::string words;
  for (const auto itemClass : {platform::ItemClass::genericPassword, platform::ItemClass::key}) {
    words += std::to_string(platform::listKeychainItems(itemClass, kAccessGroup).count) + " ";
  }
  return words;
}

/// The words of a tree with every time but the old one made the same.
std::string withoutNewTimes(const std::string& words) {
  std::istringstream in(words);
  std::string type;
  std::string mode;
  std::string owner;
  std::string time;
  std::string rest;
  in >> type >> mode >> owner >> time;
  std::getline(in, rest, '\0');
  return type + " " + mode + " " + owner + (time == "981173106.123456789" ? " old" : " now") + rest;
}

}  // namespace

void putWorld() {
  // The one before lies on top of the case's own.
  if (!std::filesystem::equivalent("/var", caseFolder() + "/var")) ::umount2("/var", MNT_DETACH);
  mountMemory("/var");
  fillWorld();
}

void fillWorld() {
  putApp("A", std::string("of ") + kApp);
  put(std::string(kContainer) + "/Documents/big", std::string(200000, 'b'));
  put(std::string(kContainer) + "/Documents/folder/deeper/file", "text");
  putSparseFile(std::string(kContainer) + "/Documents/holes");
  putLink(std::string(kContainer) + "/Library/link", "/nowhere");
  put(std::string(kContainer) + "/StoreKit/receipt");
  putApp("B", "of com.example.other");
  putGroup("G", "group.com.burbn.instagram\n");
  put(std::string("/var/mobile/Library/Caches/") + kApp + "/entry");
  put(std::string("/var/mobile/Library/Cookies/") + kApp + ".binarycookies");
  put(std::string("/var/mobile/Library/BulletinBoard/folder/") + kApp + ".data");
  put("/var/mobile/Library/Caches/com.example.other");
  put("/var/Keychains/keychain-2.db", keychainFile());
  putBackup("one.morvane", "older");
  putBackup("other.morvane", "other");
  ::chmod(kStore, 0700);
  for (const auto& [path, words] : treeAt("/var"))
    setOldTime("/var/" + path);
}

Tree world(const std::string& root) {
  Tree tree;
  ::chmod(kStore, 0700);
  for (const auto& [path, words] : treeAt(root)) {
    const bool left = path.find("/.staging_") != std::string::npos;
    const bool changing =
        path == "." || path == "mobile" || path.starts_with("Keychains") || path == "lost+found";
    if (!left && !changing) tree["/var/" + path] = withoutNewTimes(words);
  }
  if (root == "/var") tree["keychain"] = keychainItems();
  return tree;
}

Tree below(const Tree& tree, const std::string& path) {
  Tree result;
  for (const auto& [name, words] : tree) {
    if (name == path || name.starts_with(path + "/")) result.emplace(name, words);
  }
  return result;
}

const std::vector<Command>& commands() {
  static const std::string container = kContainer;
  static const std::string older = std::string(kStore) + "/one.morvane";
  static const std::vector<Command> all = {
      {"backup", {"backup", kApp, "one"}, {older}, "BACKUP_OK one.morvane\n", "BACKUP_FAIL one."},
      {"restore",
       {"restore", "one.morvane"},
       {container + "/Documents", container + "/Library"},
       "RESTORE_OK one.morvane\n",
       "RESTORE_FAIL"},
      {"reset",
       {"reset", kApp, "kill", "receipt=1"},
       {container + "/Documents", container + "/Library", container + "/tmp",
        container + "/SystemData", container + "/StoreKit", std::string(kGroup) + "/Library",
        "/var/mobile/Library", "keychain"},
       "RESET_OK com.burbn.instagram\n",
       "RESET_FAIL com.burbn.instagram: nothing found to reset\n"},
      {"remove",
       {"removebackup", "one.morvane"},
       {older},
       "REMOVE_OK one.morvane\n",
       "REMOVE_FAIL"},
      {"removeAll", {"removebackup", "ALL"}, {kStore}, "REMOVE_OK ALL\n", "REMOVE_FAIL"}};
  return all;
}

void PrintTo(const Command& command, std::ostream* stream) {
  *stream << command.name;
}

std::string trespasses(const Command& command, const Tree& before, const Tree& after) {
  const auto protectedPart = [&](const Tree& tree) {
    Tree result;
    for (const auto& [path, words] : tree) {
      const auto holds = [&, at = path](const std::string& place) {
        return at == place || at.starts_with(place + "/");
      };
      if (std::any_of(command.mayChange.begin(), command.mayChange.end(), holds)) continue;
      // That something was made or removed in a folder changes its time.
      const bool folder = words.starts_with("folder");
      result[path] = folder ? words.substr(0, words.rfind(' ')) : words;
    }
    return result;
  };
  return differences(protectedPart(before), protectedPart(after));
}

void figure(const std::string& name, size_t value) {
  std::cout << "figure " << name << " " << value << std::endl;
}

}  // namespace morvane::test
