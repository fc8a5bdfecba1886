#pragma once

#include <string>
#include <string_view>

#include "phone/sqlite_writer.h"

namespace morvane::phone {

inline constexpr const char* kKeychainPath = "/var/Keychains/keychain-2.db";

/// Puts items into a phone's keychain.
class KeychainWriter {
 public:
  /// Opens the keychain file at `path`, making it empty when it is not there.
  Result open(const std::string& path);

  /// Adds an item of the class with the short code `itemClass` ("genp", "inet", "keys", "cert" or
  /// "idnt") to `accessGroup`. `label` must be new in its class and group. An identity ("idnt")
  /// adds two rows: a certificate, and the private key that belongs to it.
  Result add(std::string_view itemClass, std::string_view accessGroup, const std::string& label);

 private:
  SqliteWriter file_;
};

}  // namespace morvane::phone
