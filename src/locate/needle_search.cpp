#include "locate/needle_search.h"

namespace morvane {
namespace {

bool isBoundary(char next) {
  const auto code = static_cast<unsigned char>(next);
  return next == '.' || code < 32;
}

}  // namespace

/// Searches `text`, of which more may follow. `consumed` becomes the number of bytes that need not
/// be looked at again: an occurrence at the very end is left for when its next character is known.
bool NeedleSearch::search(std::string_view text, size_t& consumed) const {
  size_t at = text.find(needle_);
  while (at != std::string_view::npos) {
    if (rule_ == MatchRule::anywhere) return true;
    const size_t end = at + needle_.size();
    if (end == text.size()) {
      consumed = at;
      return false;
    }
    if (isBoundary(text[end])) return true;
    consumed = end;
    at = text.find(needle_, end);
  }
  const size_t tail = needle_.size() - 1;
  if (text.size() > tail && text.size() - tail > consumed) consumed = text.size() - tail;
  return false;
}

bool NeedleSearch::feed(std::string_view piece) {
  if (needle_.empty()) return false;
  size_t consumed = 0;
  if (rest_.empty()) {
    if (search(piece, consumed)) return true;
    rest_ = piece.substr(consumed);
    return false;
  }
  rest_ += piece;
  if (search(rest_, consumed)) return true;
  rest_.erase(0, consumed);
  return false;
}

bool NeedleSearch::finish() {
  return rule_ == MatchRule::beforeBoundary && !needle_.empty() && rest_ == needle_;
}

}  // namespace morvane
