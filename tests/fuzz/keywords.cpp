// The search under the keyword filter, against ICU's own comparison of every stretch of the text.

#include <fuzzer/FuzzedDataProvider.h>
#include <unicode/normlzr.h>
#include <unicode/uchar.h>

#include <algorithm>

#include "fuzz/own_var.h"
#include "platform/text.h"

namespace {

using icu::UnicodeString;

/// `utf8` decomposed; bogus for what is not UTF-8.
UnicodeString decompose(const std::string& utf8) {
  UErrorCode error = U_ZERO_ERROR;
  UnicodeString result;
  const UnicodeString text = UnicodeString::fromUTF8(utf8);
  icu::Normalizer2::getNFDInstance(error)->normalize(text, result, error);
  std::string back;
  if (text.toUTF8String(back) != utf8) result.setToBogus();
  return result;
}

bool isMark(UChar32 c) {
  return (U_GET_GC_MASK(u_foldCase(c, U_FOLD_CASE_DEFAULT)) & U_GC_M_MASK) != 0;
}

/// Whether some stretch of whole characters of `text` is equal to `needle`, as ICU sees it.
bool icuFinds(const UnicodeString& text, const UnicodeString& needle) {
  UErrorCode error = U_ZERO_ERROR;
  for (int from = 0; from < text.length(); from = text.moveIndex32(from, 1)) {
    for (int to = from; to < text.length();) {
      to = text.moveIndex32(to, 1);
      const bool whole = to == text.length() || !isMark(text.char32At(to));
      const UnicodeString stretch = text.tempSubStringBetween(from, to);
      if (whole && icu::Normalizer::compare(stretch, needle, U_COMPARE_IGNORE_CASE, error) == 0)
        return true;
    }
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
  FuzzedDataProvider input(data, std::min<size_t>(size, 80));
  const std::string needle = input.ConsumeRandomLengthString(40);
  const std::string text = input.ConsumeRemainingBytesAsString();
  const UnicodeString wideNeedle = decompose(needle);
  const UnicodeString wideText = decompose(text);
  if (wideNeedle.isEmpty() || wideNeedle.isBogus() || wideText.isBogus()) return 0;
  require(morvane::platform::containsIgnoringCase(text, needle) == icuFinds(wideText, wideNeedle),
          "the search finds what ICU finds");
  return 0;
}
