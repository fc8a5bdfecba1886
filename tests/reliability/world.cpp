#include "reliability/world.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <filesystem>
#include <iostream>

#include "phone/keychain_writer.h"
#include "platform/keychain.h"
#include "support/case.h"

namespace morvane::test {
namespace {

constexpr const char* kAccessGroup = "T84QZS65DQ.platformFamily";

/// The bytes of a keychain file: it takes longer to make than all the rest.
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

/// How many items there are, asked once of each state of the files.
std::string keychainItems() {
  static std::map<std::string, std::string> known;
  const std::string path = phone::kKeychainPath;
  std::string& words = known[contentOf(path) + contentOf(path + "-journal")];
  if (!words.empty()) return words;
  for (const auto itemClass : {platform::ItemClass::genericPassword, platform::ItemClass::key})
    words += std::to_string(platform::listKeychainItems(itemClass, kAccessGroup).count) + " ";
  return words;
}

/// The words of an entry with every time but the old one made the same.
std::string withoutNewTime(std::string words) {
  size_t time = 0;
  for (int word = 0; word < 3; ++word)
    time = words.find(' ', time) + 1;
  const size_t length = words.substr(time).find(' ');
  const bool old = words.substr(time, length) == "981173106.123456789";
  return words.replace(time, length, old ? "old" : "now");
}

}  // namespace

void putWorld() {
  // The one before lies on top of the case's own.
  if (!std::filesystem::equivalent("/var", caseFolder() + "/var")) ::umount2("/var", MNT_DETACH);
  mountMemory("/var");
  fillWorld();
}

void fillWorld() {
  putApp("A", "of " + kApp);
  putApp("B", "of com.example.other");
  putGroup("G", "group.com.burbn.instagram\n");
  put(kContainer + "/Documents/big", std::string(200000, 'b'));
  put(kContainer + "/Documents/holes", "start");
  std::filesystem::resize_file(kContainer + "/Documents/holes", 300000);
  putLink(kContainer + "/Documents/folder/link", "/nowhere");
  EXPECT_EQ(::setxattr((kContainer + "/Documents/big").c_str(), "user.tag", "value", 5, 0), 0);
  const std::string library = "/var/mobile/Library/";
  for (const std::string& file :
       {kContainer + "/Documents/folder/deeper/file", kContainer + "/StoreKit/receipt",
        library + "Caches/" + kApp + "/entry", library + "Cookies/" + kApp + ".binarycookies",
        library + "BulletinBoard/folder/" + kApp + ".data", library + "Caches/com.example.other"})
    put(file);
  put(phone::kKeychainPath, keychainFile());
  for (const std::string mark : {"one", "other"}) {
    const std::string backup = kStore + "/" + mark + ".morvane/";
    put(backup + "manifest.txt", kApp);
    for (const char* folder : {"/Documents/sub", "/Documents", "/Library"}) {
      put(backup + kApp + folder + "/of " + mark, mark);
      ::chmod((backup + kApp + folder).c_str(), 0700);  // not the app's
    }
    putLink(backup + kApp + "/Documents/link", mark);
  }
  for (const auto& entry : std::filesystem::recursive_directory_iterator("/var"))
    setOldTime(entry.path());
  setOldTime("/var");
}

Tree world(const std::string& root) {
  Tree tree;
  ::chmod(kStore.c_str(), 0700);
  for (const auto& [path, words] : treeAt(root)) {
    const bool left = path.find("/.staging_") != std::string::npos;
    const bool changing =
        path == "." || path == "mobile" || path.starts_with("Keychains") || path == "lost+found";
    if (!left && !changing) tree["/var/" + path] = withoutNewTime(words);
  }
  if (root == "/var") tree["keychain"] = keychainItems();
  return tree;
}

Tree below(const Tree& tree, const std::string& path) {
  Tree result;
  for (const auto& [name, words] : tree) {
    const bool within = path.empty() || name == path || name.starts_with(path + "/");
    const size_t end = words.starts_with("folder") ? words.rfind(' ') : words.npos;
    if (within) result[name.substr(path.size())] = words.substr(0, end);
  }
  return result;
}

void figure(const std::string& name, size_t value) {
  std::cout << "figure " << name << " " << value << std::endl;
}

}  // namespace morvane::test
