// The keyword filter, which looks at the end of a path only, against the whole path; and the search
// under it against ICU's own comparison of every stretch of the text.

#include "backup/keywords.h"

#include <fuzzer/FuzzedDataProvider.h>
#include <unicode/normlzr.h>
#include <unicode/uchar.h>

#include "fuzz/own_var.h"
#include "platform/text.h"

namespace {

using icu::UnicodeString;
using morvane::platform::containsIgnoringCase;

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

void checkSearch(const std::string& text, const std::string& needle) {
  const UnicodeString wideNeedle = decompose(needle);
  const UnicodeString wideText = decompose(text);
  if (wideNeedle.isBogus() || wideText.isBogus()) return;
  require(containsIgnoringCase(text, needle) == icuFinds(wideText, wideNeedle),
          "the search finds what ICU finds");
}

void checkFilter(const std::string& path, const std::string& needle) {
  morvane::KeywordFilter filter({needle});
  bool found = false;
  for (size_t from = 0; from <= path.size() && !found;) {
    const size_t end = std::min(path.find('/', from), path.size());
    const std::string name = path.substr(from, end - from);
    found = containsIgnoringCase(path.substr(0, end), needle);
    require(filter.leavesOut(name.c_str()) == found,
            "the end of a path tells as much as all of it");
    filter.enterFolder(name.c_str());
    from = end + 1;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
  FuzzedDataProvider input(data, size);
  const std::string needle = morvane::keywordToNeedle(input.ConsumeRandomLengthString(40));
  std::string text = input.ConsumeRandomLengthString(400);
  std::erase(text, '\0');  // no path has one
  if (needle.empty()) return 0;
  checkFilter(text, needle);
  if (text.size() < 80) checkSearch(text, needle);
  return 0;
}
