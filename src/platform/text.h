#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

namespace morvane::platform {

/// Whether `needle` occurs in `text` by the platform's case-insensitive, non-literal search: letter
/// case is folded over all of Unicode, canonically equivalent sequences are equal, and a match ends
/// and begins between composed characters (`e` is not found in `e` + U+0301). Both are UTF-8; bytes
/// that are not match only the same bytes. An empty needle is never found.
[[nodiscard]] bool containsIgnoringCase(std::string_view text, std::string_view needle);

/// A stretch of a text, in the platform's text units (UTF-16).
struct TextRange {
  std::size_t start = 0;
  std::size_t length = 0;
};

struct FirstMatch {
  std::size_t textLength = 0;      // of the whole text, in the same units
  std::optional<TextRange> range;  // the leftmost match
};

/// The first match of the ICU regular expression `pattern` in the UTF-8 `text`. No match where the
/// pattern does not compile, the engine gives up, or the text is not UTF-8.
[[nodiscard]] FirstMatch findFirstMatch(std::string_view text, std::string_view pattern);

}  // namespace morvane::platform
