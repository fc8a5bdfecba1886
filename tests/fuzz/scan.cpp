// The search of metadata files piece by piece, against the same rule on the whole text at once.

#include <fuzzer/FuzzedDataProvider.h>

#include "fuzz/own_var.h"
#include "locate/needle_search.h"

namespace {

using morvane::MatchRule;

bool matchesWhole(std::string_view text, std::string_view needle, MatchRule rule) {
  if (needle.empty()) return false;
  for (size_t from = 0; (from = text.find(needle, from)) != std::string_view::npos;) {
    from += needle.size();
    const int next = from < text.size() ? static_cast<unsigned char>(text[from]) : 0;
    if (rule == MatchRule::anywhere || next == '.' || next < 32) return true;
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
  FuzzedDataProvider input(data, size);
  const MatchRule rule = input.ConsumeBool() ? MatchRule::beforeBoundary : MatchRule::anywhere;
  const std::string needle = input.ConsumeRandomLengthString(16);
  const size_t piece = input.ConsumeIntegralInRange<size_t>(1, 40);
  const std::string text = input.ConsumeRemainingBytesAsString();
  morvane::NeedleSearch search(needle, rule);
  bool found = false;
  for (size_t at = 0; at < text.size() && !found; at += piece)
    found = search.feed(std::string_view(text).substr(at, piece));
  found = found || search.finish();
  require(found == matchesWhole(text, needle, rule), "pieces and whole agree");
  return 0;
}
