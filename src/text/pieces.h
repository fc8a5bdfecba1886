#pragma once

#include <string_view>
#include <vector>

namespace morvane {

/// The pieces of `text` between the occurrences of `separator`, empty ones included: always at
/// least one.
[[nodiscard]] std::vector<std::string_view> splitAt(std::string_view text, char separator);

/// `text` (UTF-8) without the white space at its ends: the space separators of Unicode (category
/// Zs) and the tab. Line ends are not white space here.
[[nodiscard]] std::string_view trimmed(std::string_view text);

}  // namespace morvane
