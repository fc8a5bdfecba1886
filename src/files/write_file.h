#pragma once

#include <string_view>

namespace morvane {

/// Writes the file `name` in `dirFd` (mode 0644), whole or not at all: under a temporary name
/// first, which is then renamed. Returns errno; on failure what was there before is untouched.
[[nodiscard]] int writeFileAt(int dirFd, const char* name, std::string_view content);

}  // namespace morvane
