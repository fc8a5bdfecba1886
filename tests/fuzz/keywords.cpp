// The keyword filter, which looks at the end of a path only, against the whole path; and the
// search under it against ICU's own comparison of every stretch of the text.

#include "backup/keywords.h"

#include <fuzzer/FuzzedDataProvider.h>
#include <unicode/uchar.h>
#include <unicode/unorm.h>
#include <unicode/unorm2.h>
#include <unicode/ustring.h>
#include <unicode/utf16.h>

#include "fuzz/own_var.h"
#include "platform/text.h"

namespace {

using namespace morvane;  // NOLINT(google-build-using-namespace)

/// UTF-16, decomposed; false for what is not UTF-8.
bool decompose(const std::string& utf8, std::u16string& result) {
  UErrorCode error = U_ZERO_ERROR;
  std::u16string raw(utf8.size() + 1, u'\0');
  int32_t length = 0;
  u_strFromUTF8(raw.data(), static_cast<int32_t>(raw.size()), &length, utf8.data(),
                static_cast<int32_t>(utf8.size()), &error);
  result.assign(utf8.size() * 4 + 1, u'\0');
  length = unorm2_normalize(unorm2_getNFDInstance(&error), raw.data(), length, result.data(),
                            static_cast<int32_t>(result.size()), &error);
  result.resize(U_SUCCESS(error) ? static_cast<size_t>(length) : 0);
  return U_SUCCESS(error) != 0;
}

bool isBase(const std::u16string& text, int32_t at) {
  if (at == static_cast<int32_t>(text.size())) return true;
  UChar32 c = 0;
  U16_GET(text.data(), 0, at, static_cast<int32_t>(text.size()), c);
  return (U_GET_GC_MASK(u_foldCase(c, U_FOLD_CASE_DEFAULT)) & U_GC_M_MASK) == 0;
}

/// Whether some stretch of whole characters of `text` is equal to `needle`, as ICU sees it.
bool icuFinds(const std::u16string& text, const std::u16string& needle) {
  const auto size = static_cast<int32_t>(text.size());
  for (int32_t from = 0; from < size;) {
    for (int32_t to = from; to < size;) {
      U16_FWD_1(text.data(), to, size);
      UErrorCode error = U_ZERO_ERROR;
      const bool equal =
          unorm_compare(text.data() + from, to - from, needle.data(),
                        static_cast<int32_t>(needle.size()), U_COMPARE_IGNORE_CASE, &error) == 0;
      if (equal && isBase(text, to)) return true;
    }
    U16_FWD_1(text.data(), from, size);
  }
  return false;
}

void checkSearch(const std::string& text, const std::string& needle) {
  std::u16string wideText;
  std::u16string wideNeedle;
  if (!decompose(text, wideText) || !decompose(needle, wideNeedle)) return;
  require(platform::containsIgnoringCase(text, needle) == icuFinds(wideText, wideNeedle),
          "the search finds what ICU finds");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
  if (size > 400) return 0;
  FuzzedDataProvider input(data, size);
  const std::vector<std::string> needles = parseKeywordNeedles(input.ConsumeRandomLengthString(40));
  KeywordFilter filter(needles);
  std::string path;
  while (input.remaining_bytes() > 0) {
    std::string name = input.ConsumeRandomLengthString(60);
    std::replace_if(
        name.begin(), name.end(), [](char c) { return c == '/' || c == 0; }, 'x');
    if (name.empty()) name = "e\xCC\x81";
    const std::string whole = path + name;
    bool found = false;
    for (const std::string& needle : needles) {
      found = found || platform::containsIgnoringCase(whole, needle);
      if (whole.size() < 80) checkSearch(whole, needle);
    }
    require(filter.leavesOut(name.c_str()) == found,
            "the end of a path tells as much as all of it");
    if (found) break;
    filter.enterFolder(name.c_str());
    path = whole + "/";
  }
  return 0;
}
