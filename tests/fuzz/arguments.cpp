// Bundle lists, names, flags and keywords, against rules written down once more, plainly.

#include "cli/arguments.h"

#include <algorithm>
#include <cstring>

#include "backup/keywords.h"
#include "fuzz/own_var.h"
#include "report/exit_status.h"

namespace morvane {
// In the place of the one that ends the process: refused arguments are no crash.
void endProcess(ExitStatus status) {
  throw status;
}
}  // namespace morvane

namespace {

using namespace morvane;  // NOLINT(google-build-using-namespace)

bool isToken(std::string_view text) {
  const auto allowed = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
           c == '_' || c == '-';
  };
  return !text.empty() && std::all_of(text.begin(), text.end(), allowed) && text[0] != '.' &&
         text.find("..") == std::string_view::npos;
}

void checkBundles(std::string_view text) {
  try {
    const std::vector<std::string> bundles = parseBundles(text);
    require(!bundles.empty(), "a list holds something");
    size_t at = 0;
    for (const std::string& bundle : bundles) {
      require(isToken(bundle), "every identifier is a token");
      at = text.find(bundle, at);
      require(at != std::string_view::npos, "identifiers come in the argument's order");
      at += bundle.size();
    }
  } catch (ExitStatus status) {
    require(status == ExitStatus::badUsage, "refused as bad usage");
    require(!isToken(text), "one good identifier is never refused");
  }
}

void checkFlags(const std::string& text) {
  for (const auto& [key, on] : parseFlags(text)) {
    require(!key.empty() && key.find_first_of(",=") == std::string::npos, "a key is one word");
    require(!on || text.find('1') != std::string::npos, "only 1 switches on");
  }
  const std::string last = text + (text.empty() ? "" : ",") + " sys = 1 ";
  require(flagBool(parseFlags(last), "sys", false), "the last of equal keys holds");
}

void checkKeywords(std::string_view text) {
  for (const std::string& needle : parseKeywordNeedles(text)) {
    require(!needle.empty(), "no needle is empty");
    require(needle.find_first_of("*|\n") == std::string::npos, "no needle holds a separator");
    require(needle.front() != '/' && needle.back() != '/', "no needle has a slash at its ends");
  }
}

}  // namespace

// Leaving the product by an exception, which it does not know, costs what it holds.
extern "C" int __lsan_is_turned_off() {  // NOLINT: the sanitizer's name
  return 1;
}

extern "C" int LLVMFuzzerTestOneInput(const char* data, size_t size) {
  const std::string text(data, strnlen(data, size));  // an argument ends at its NUL
  constexpr std::string_view kSuffix = ".morvane";
  require(isValidToken(text) == isToken(text), "a token is one by both rules");
  const bool isName = isToken(text) && text.size() > kSuffix.size() && text.ends_with(kSuffix);
  require(isValidBackupFilename(text) == isName, "a file name is one by both rules");
  checkBundles(text);
  checkFlags(text);
  checkKeywords(text);
  return 0;
}
