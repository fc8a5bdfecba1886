#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace morvane {

/// What must follow an occurrence for it to count.
enum class MatchRule { anywhere, beforeBoundary };

/// Looks for a needle in a text that is handed over piece by piece, so that a text of any size
/// needs only the room of one piece.
class NeedleSearch {
 public:
  NeedleSearch(std::string_view needle, MatchRule rule) : needle_(needle), rule_(rule) {}

  /// Takes the next piece of the text. True once an occurrence counts; further calls are pointless.
  [[nodiscard]] bool feed(std::string_view piece);

  /// The text ends. True when an occurrence at its very end counts.
  [[nodiscard]] bool finish();

 private:
  [[nodiscard]] bool search(std::string_view text, size_t& consumed) const;

  std::string_view needle_;
  MatchRule rule_;
  std::string rest_;  // the end of what was fed, where an occurrence may have begun
};

}  // namespace morvane
