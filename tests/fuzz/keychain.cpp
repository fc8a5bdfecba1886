// A keychain file that is not what it seems.

#include "platform/keychain.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "fuzz/own_var.h"
#include "phone/keychain_writer.h"
#include "reset/keychain_clear.h"
#include "reset/keychain_groups.h"

namespace {

constexpr const char* kFile = "/var/Keychains/keychain-2.db";
constexpr const char* kGroup = "T84QZS65DQ.platformFamily";

/// A keychain in order, from which the others are made.
std::string& sound() {
  static std::string bytes;
  return bytes;
}

}  // namespace

extern "C" size_t LLVMFuzzerMutate(unsigned char* data, size_t size, size_t maxSize);
extern "C" size_t LLVMFuzzerCustomMutator(unsigned char* data, size_t size, size_t maxSize,
                                          unsigned seed) {
  if (size < 512 || seed % 64 == 0) {
    size = std::min(maxSize, sound().size());
    std::memcpy(data, sound().data(), size);
  }
  return LLVMFuzzerMutate(data, size, maxSize);
}

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  enterOwnVar();
  mkdir("/var/Keychains", 0700);
  {
    morvane::phone::KeychainWriter keychain;
    require(keychain.open(kFile) && keychain.add("genp", kGroup, "password") &&
                keychain.add("idnt", kGroup, "identity"),
            "a keychain can be made");
  }
  std::ostringstream bytes;
  bytes << std::ifstream(kFile, std::ios::binary).rdbuf();
  sound() = bytes.str();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
  for (const char* beside : {"-journal", "-wal", "-shm"})
    unlink((std::string(kFile) + beside).c_str());
  std::ofstream(kFile, std::ios::binary)
      .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  for (const auto itemClass : morvane::KC_CLASSES) {
    const auto items = morvane::platform::listKeychainItems(itemClass, std::nullopt);
    require(items.count >= items.accessGroups.size(), "groups are of items");
    const auto status = morvane::platform::deleteKeychainItems(itemClass, kGroup);
    const auto left = morvane::platform::listKeychainItems(itemClass, kGroup);
    const bool gone = left.status != morvane::platform::kKeychainSuccess;
    require(status != morvane::platform::kKeychainItemNotFound || gone,
            "what is not found is not there");
  }
  return 0;
}
