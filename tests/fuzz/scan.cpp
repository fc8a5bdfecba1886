// The search of metadata files piece by piece, against the search of the whole text at once.

#include <fuzzer/FuzzedDataProvider.h>

#include "fuzz/own_var.h"
#include "locate/needle_search.h"

namespace {

bool finds(morvane::NeedleSearch search, std::string_view text, size_t piece) {
  for (size_t at = 0; at < text.size(); at += piece) {
    if (search.feed(text.substr(at, piece))) return true;
  }
  return search.finish();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
  using morvane::MatchRule;
  FuzzedDataProvider input(data, size);
  const MatchRule rule = input.ConsumeBool() ? MatchRule::beforeBoundary : MatchRule::anywhere;
  const std::string needle = input.ConsumeRandomLengthString(16);
  const size_t piece = input.ConsumeIntegralInRange<size_t>(1, 40);
  const std::string text = input.ConsumeRemainingBytesAsString();
  const morvane::NeedleSearch search(needle, rule);
  require(finds(search, text, piece) == finds(search, text, text.size()), "pieces and whole agree");
  return 0;
}
