// Bundle lists, names, flags and keywords: whatever is given, what is taken of it does no harm.

#include "cli/arguments.h"

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

/// Whether `text` is safe as one component of a path, and as a word of a result line.
bool isToken(std::string_view text) {
  constexpr std::string_view kAllowed =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-";
  return !text.empty() && text.find_first_not_of(kAllowed) == text.npos &&
         text.find("..") == text.npos && text[0] != '.';
}

}  // namespace

// Leaving the product by an exception, which it does not know, costs what it holds.
extern "C" int __lsan_is_turned_off() {  // NOLINT: the sanitizer's name
  return 1;
}

extern "C" int LLVMFuzzerTestOneInput(const char* data, size_t size) {
  const std::string text(data, strnlen(data, size));  // an argument ends at its NUL
  require(isValidToken(text) == isToken(text), "a token is safe, and what is safe is a token");
  const bool named = text.size() > 8 && text.ends_with(".morvane");
  require(isValidBackupFilename(text) == (named && isToken(text)),
          "a file name is one by both rules");
  try {
    for (const std::string& bundle : parseBundles(text))
      require(isToken(bundle), "every identifier is safe");
  } catch (ExitStatus status) {
    require(status == ExitStatus::badUsage && !isToken(text), "only what is not safe is refused");
  }
  for (const auto& [key, on] : parseFlags(text))
    require(!key.empty() && key.find_first_of(",=") == key.npos, "a key is one word");
  for (const std::string& needle : parseKeywordNeedles(text))
    require(!needle.empty() && needle.find_first_of("*|\n") == needle.npos, "a needle is one word");
  return 0;
}
