// A keychain file that is not what it seems.

#include "platform/keychain.h"

#include <fuzzer/FuzzedDataProvider.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "fuzz/own_var.h"
#include "phone/keychain_writer.h"
#include "reset/keychain_clear.h"
#include "reset/keychain_groups.h"

namespace {

using namespace morvane;  // NOLINT(google-build-using-namespace)

constexpr const char* kGroup = "T84QZS65DQ.platformFamily";

std::string makeKeychain() {
  enterOwnVar();
  mkdir("/var/Keychains", 0700);
  phone::KeychainWriter keychain;
  require(keychain.open(phone::kKeychainPath) && keychain.add("genp", kGroup, "password") &&
              keychain.add("idnt", kGroup, "identity"),
          "a keychain can be made");
  return (std::ostringstream() << std::ifstream(phone::kKeychainPath, std::ios::binary).rdbuf())
      .str();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
  static const std::string sound = makeKeychain();
  FuzzedDataProvider input(data, size);
  std::string bytes = sound;
  while (input.remaining_bytes() > 0) {
    const auto at = input.ConsumeIntegralInRange<size_t>(0, bytes.size());
    bytes.replace(at, 4, input.ConsumeRandomLengthString(8));
  }
  for (const char* beside : {"-journal", "-wal", "-shm"})
    unlink((std::string(phone::kKeychainPath) + beside).c_str());
  std::ofstream(phone::kKeychainPath, std::ios::binary) << bytes;
  for (const auto itemClass : KC_CLASSES) {
    (void)platform::listKeychainItems(itemClass, std::nullopt);
    const auto status = platform::deleteKeychainItems(itemClass, kGroup);
    const auto left = platform::listKeychainItems(itemClass, kGroup);
    require(status != platform::kKeychainItemNotFound || left.count == 0,
            "what is not found is not there");
  }
  return 0;
}
