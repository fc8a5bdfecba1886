#include "text/terminal_text.h"

#include <algorithm>
#include <array>

namespace morvane {
namespace {

/// The character that a text begins with; not valid, and one byte long, where that is no UTF-8.
struct Character {
  char32_t code = 0;
  std::size_t bytes = 1;
  bool valid = false;
};

struct CodeRange {
  char32_t first = 0;
  char32_t last = 0;
};

// What steers a terminal or the direction of its text, or cannot be seen (UnicodeData.txt, Cc, Zl,
// Zp and most of Cf).
constexpr std::array<CodeRange, 9> kUnprintable = {{{0x00, 0x1F},
                                                    {0x7F, 0x9F},
                                                    {0x61C, 0x61C},
                                                    {0x180E, 0x180E},
                                                    {0x200B, 0x200F},
                                                    {0x2028, 0x202E},
                                                    {0x2060, 0x206F},
                                                    {0xFEFF, 0xFEFF},
                                                    {0xFFF9, 0xFFFB}}};

// East Asian scripts and emoji with whatever lies between them (EastAsianWidth.txt). Combining
// marks count as characters of their own.
constexpr std::array<CodeRange, 3> kMaybeWide = {
    {{0x1100, 0x115F}, {0x2300, 0x2BFF}, {0x2E80, 0x10FFFF}}};

template <std::size_t size>
bool isIn(const std::array<CodeRange, size>& ranges, char32_t code) {
  return std::any_of(ranges.begin(), ranges.end(), [code](const CodeRange& range) {
    return range.first <= code && code <= range.last;
  });
}

/// RFC 3629: no surrogates, nothing above U+10FFFF, nothing longer than need be.
Character firstCharacter(std::string_view text) {
  const auto byteAt = [text](std::size_t at) { return static_cast<unsigned char>(text[at]); };
  const unsigned lead = byteAt(0);
  if (lead < 0x80) return {lead, 1, true};
  const std::size_t bytes = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (lead < 0xC2 || lead > 0xF4 || text.size() < bytes) return {};
  char32_t code = lead & (0xFFU >> (bytes + 1));
  for (std::size_t at = 1; at < bytes; ++at) {
    if ((byteAt(at) & 0xC0U) != 0x80) return {};
    code = (code << 6U) | (byteAt(at) & 0x3FU);
  }
  const bool tooLong = (bytes == 3 && code < 0x800) || (bytes == 4 && code < 0x10000);
  const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
  if (tooLong || surrogate || code > 0x10FFFF) return {};
  return {code, bytes, true};
}

std::string escaped(std::string_view bytes) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string result;
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    result.append("\\x").append(1, kDigits[byte >> 4U]).append(1, kDigits[byte & 0xFU]);
  }
  return result;
}

}  // namespace

std::string terminalText(std::string_view text, std::size_t columns) {
  std::string result;
  std::size_t used = 0;
  while (!text.empty()) {
    const Character character = firstCharacter(text);
    const std::string_view bytes = text.substr(0, character.bytes);
    const bool printable = character.valid && !isIn(kUnprintable, character.code);
    const std::string shown = printable ? std::string(bytes) : escaped(bytes);
    const std::size_t width =
        !printable ? shown.size() : (isIn(kMaybeWide, character.code) ? 2 : 1);
    if (used + width > columns) break;
    result += shown;
    used += width;
    text.remove_prefix(character.bytes);
  }
  return result;
}

}  // namespace morvane
