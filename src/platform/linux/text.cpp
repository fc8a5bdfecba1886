#include "platform/text.h"

#include <unicode/uchar.h>
#include <unicode/unorm2.h>
#include <unicode/uregex.h>
#include <unicode/ustring.h>
#include <unicode/utf16.h>
#include <unicode/utf8.h>

#include <memory>
#include <new>
#include <string>
#include <vector>

namespace morvane::platform {
namespace {

constexpr UChar32 kByteEscape = 0xDC00;  // a lone surrogate for each byte that is not UTF-8

enum class BadBytes { escape, refuse };

/// ICU reports a want of memory as an error of its own; here it ends the process, as it does
/// anywhere else.
void endIfOutOfMemory(UErrorCode error) {
  if (error != U_MEMORY_ALLOCATION_ERROR) return;
  if (const std::new_handler handler = std::get_new_handler()) handler();
}

/// The character at `at`, which moves behind it; negative, and one byte further, where none is.
UChar32 nextUtf8(const uint8_t* bytes, int32_t length, int32_t& at) {
  const int32_t start = at;
  UChar32 c = 0;
  U8_NEXT(bytes, at, length, c);
  if (c < 0) at = start + 1;
  return c;
}

/// UTF-8 to UTF-16. A byte that is not UTF-8 becomes a code unit that no text holds, or makes the
/// result false.
bool decode(std::string_view text, BadBytes badBytes, std::u16string& result) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
  const auto length = static_cast<int32_t>(text.size());
  result.reserve(text.size());
  for (int32_t at = 0; at < length;) {
    const int32_t start = at;
    UChar32 c = nextUtf8(bytes, length, at);
    if (c < 0) {
      if (badBytes == BadBytes::refuse) return false;
      c = kByteEscape + bytes[start];
    }
    if (c > 0xFFFF) {
      result += U16_LEAD(c);
      result += U16_TRAIL(c);
    } else {
      result += static_cast<char16_t>(c);
    }
  }
  return true;
}

std::u16string decomposed(const std::u16string& text) {
  UErrorCode error = U_ZERO_ERROR;
  const UNormalizer2* normalizer = unorm2_getNFDInstance(&error);
  std::u16string result(text.size() * 4 + 1, u'\0');  // no character decomposes further (UAX #15)
  const int32_t length =
      unorm2_normalize(normalizer, text.data(), static_cast<int32_t>(text.size()), result.data(),
                       static_cast<int32_t>(result.size()), &error);
  endIfOutOfMemory(error);
  if (U_FAILURE(error)) return text;
  result.resize(static_cast<size_t>(length));
  return result;
}

/// The character at `at`, which moves behind it. A lone surrogate stands for itself.
UChar32 nextCharacter(const std::u16string& text, size_t& at) {
  const char16_t unit = text[at++];
  if (!U16_IS_LEAD(unit) || at == text.size() || !U16_IS_TRAIL(text[at])) return unit;
  return U16_GET_SUPPLEMENTARY(unit, text[at++]);
}

/// A text in the form in which letter case and composition no longer matter, and, for each unit of
/// it, whether a character of the decomposed text begins there.
struct Folded {
  std::u16string units;
  std::vector<bool> begins;
};

Folded fold(std::string_view utf8) {
  std::u16string raw;
  (void)decode(utf8, BadBytes::escape, raw);
  const std::u16string text = decomposed(raw);
  Folded folded;
  for (size_t at = 0; at < text.size();) {
    const size_t start = at;
    (void)nextCharacter(text, at);
    char16_t buffer[8];  // a full case folding has at most three characters (CaseFolding.txt)
    UErrorCode error = U_ZERO_ERROR;
    const int32_t length =
        u_strFoldCase(buffer, 8, text.data() + start, static_cast<int32_t>(at - start),
                      U_FOLD_CASE_DEFAULT, &error);
    std::u16string unit(text, start, at - start);
    if (U_SUCCESS(error)) unit.assign(buffer, static_cast<size_t>(length));
    unit = decomposed(unit);
    folded.begins.push_back(true);
    folded.begins.resize(folded.begins.size() + unit.size() - 1, false);
    folded.units += unit;
  }
  // Folding can make a mark into a letter (U+0345), which puts marks in another order.
  std::u16string ordered = decomposed(folded.units);
  if (ordered != folded.units) {
    folded.units = std::move(ordered);
    folded.begins.assign(folded.units.size(), true);
  }
  return folded;
}

bool isMark(UChar32 c) {
  return (U_GET_GC_MASK(c) & U_GC_M_MASK) != 0;
}

/// Whether a match may end before the unit at `position`: not within a character or before its
/// marks.
bool isBoundary(const Folded& text, size_t position) {
  if (position == text.units.size()) return true;
  const bool begins = text.begins[position];
  return begins && !isMark(nextCharacter(text.units, position));
}

struct CloseRegex {
  void operator()(URegularExpression* regex) const { uregex_close(regex); }
};

}  // namespace

bool containsIgnoringCase(std::string_view text, std::string_view needle) {
  if (needle.empty()) return false;
  // One name is searched for several needles in a row.
  static std::string lastText;
  static Folded in;
  if (in.units.empty() || lastText != text) {
    lastText = text;
    in = fold(text);
  }
  const std::u16string sought = fold(needle).units;
  size_t at = in.units.find(sought);
  while (at != std::u16string::npos) {
    if (in.begins[at] && isBoundary(in, at + sought.size())) return true;
    at = in.units.find(sought, at + 1);
  }
  return false;
}

FirstMatch findFirstMatch(std::string_view text, std::string_view pattern) {
  FirstMatch result;
  std::u16string subject;
  std::u16string expression;
  if (!decode(text, BadBytes::refuse, subject)) return result;
  if (!decode(pattern, BadBytes::refuse, expression)) return result;
  result.textLength = subject.size();
  UErrorCode error = U_ZERO_ERROR;
  const std::unique_ptr<URegularExpression, CloseRegex> regex(
      uregex_open(expression.data(), static_cast<int32_t>(expression.size()), 0, nullptr, &error));
  uregex_setText(regex.get(), subject.data(), static_cast<int32_t>(subject.size()), &error);
  const bool found = uregex_find(regex.get(), 0, &error) != 0;
  const int32_t start = uregex_start(regex.get(), 0, &error);
  const int32_t end = uregex_end(regex.get(), 0, &error);
  endIfOutOfMemory(error);
  if (U_SUCCESS(error) && found) {
    result.range = {static_cast<size_t>(start), static_cast<size_t>(end - start)};
  }
  return result;
}

}  // namespace morvane::platform
