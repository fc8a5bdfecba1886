// A keychain file that is not what it seems.

#include "platform/keychain.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "fuzz/own_var.h"
#include "phone/keychain_writer.h"
#include "reset/keychain_clear.h"
#include "reset/keychain_groups.h"

namespace {

constexpr const char* kFile = "/var/Keychains/keychain-2.db";
constexpr const char* kGroup = "T84QZS65DQ.platformFamily";

void writeFile(const void* data, size_t size) {
  const int fd = open(kFile, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  require(write(fd, data, size) == static_cast<ssize_t>(size), "the file can be written");
  close(fd);
}

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
  sound().resize(1 << 16);
  const int fd = open(kFile, O_RDONLY | O_CLOEXEC);
  sound().resize(static_cast<size_t>(read(fd, sound().data(), sound().size())));
  close(fd);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
  unlink("/var/Keychains/keychain-2.db-journal");
  unlink("/var/Keychains/keychain-2.db-wal");
  unlink("/var/Keychains/keychain-2.db-shm");
  writeFile(data, size);
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
