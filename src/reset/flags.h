#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>

namespace morvane {

/// The switches of a reset by name; names that nobody asks for are allowed.
using Flags = std::map<std::string, bool, std::less<>>;

/// The value stored under `key`, or `defaultValue` where there is none.
[[nodiscard]] inline bool flagBool(const Flags& flags, std::string_view key, bool defaultValue) {
  const auto entry = flags.find(key);
  return entry == flags.end() ? defaultValue : entry->second;
}

}  // namespace morvane
