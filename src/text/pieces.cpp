#include "text/pieces.h"

#include <array>

namespace morvane {
namespace {

// The tab and all of category Zs (UnicodeData.txt), in UTF-8.
constexpr std::array<std::string_view, 18> kWhiteSpace = {
    "\t",            // CHARACTER TABULATION
    " ",             // SPACE
    "\xC2\xA0",      // NO-BREAK SPACE
    "\xE1\x9A\x80",  // OGHAM SPACE MARK
    "\xE2\x80\x80",  // EN QUAD
    "\xE2\x80\x81",  // EM QUAD
    "\xE2\x80\x82",  // EN SPACE
    "\xE2\x80\x83",  // EM SPACE
    "\xE2\x80\x84",  // THREE-PER-EM SPACE
    "\xE2\x80\x85",  // FOUR-PER-EM SPACE
    "\xE2\x80\x86",  // SIX-PER-EM SPACE
    "\xE2\x80\x87",  // FIGURE SPACE
    "\xE2\x80\x88",  // PUNCTUATION SPACE
    "\xE2\x80\x89",  // THIN SPACE
    "\xE2\x80\x8A",  // HAIR SPACE
    "\xE2\x80\xAF",  // NARROW NO-BREAK SPACE
    "\xE2\x81\x9F",  // MEDIUM MATHEMATICAL SPACE
    "\xE3\x80\x80",  // IDEOGRAPHIC SPACE
};

size_t spaceAtStart(std::string_view text) {
  for (const std::string_view space : kWhiteSpace) {
    if (text.starts_with(space)) return space.size();
  }
  return 0;
}

size_t spaceAtEnd(std::string_view text) {
  for (const std::string_view space : kWhiteSpace) {
    if (text.ends_with(space)) return space.size();
  }
  return 0;
}

}  // namespace

std::vector<std::string_view> splitAt(std::string_view text, char separator) {
  std::vector<std::string_view> pieces;
  size_t start = 0;
  for (size_t at = text.find(separator); at != std::string_view::npos;
       at = text.find(separator, start)) {
    pieces.push_back(text.substr(start, at - start));
    start = at + 1;
  }
  pieces.push_back(text.substr(start));
  return pieces;
}

std::string_view trimmed(std::string_view text) {
  while (const size_t size = spaceAtStart(text))
    text.remove_prefix(size);
  while (const size_t size = spaceAtEnd(text))
    text.remove_suffix(size);
  return text;
}

}  // namespace morvane
