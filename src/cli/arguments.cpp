#include "cli/arguments.h"

#include "platform/text.h"
#include "report/exit_status.h"
#include "report/output.h"
#include "text/pieces.h"

namespace morvane {
namespace {

[[noreturn]] void refuse(std::string_view message) {
  writeOut(Stream::standardError, message);
  endProcess(ExitStatus::badUsage);
}

/// A token becomes a path component and part of a scan's needle: it must not lead out of its
/// folder.
bool isSafeToken(std::string_view text, std::string_view pattern) {
  return matchesRegex(text, pattern) && text.find("..") == std::string_view::npos &&
         !text.starts_with('.');
}

}  // namespace

std::vector<std::string> parseBundles(std::string_view text) {
  std::vector<std::string> bundles;
  for (const std::string_view piece : splitAt(text, ',')) {
    const std::string_view bundle = trimmed(piece);
    if (bundle.empty()) continue;
    if (!isValidToken(bundle)) refuse("[morvane_cli] invalid bundle id (rejected)\n");
    bundles.emplace_back(bundle);
  }
  if (bundles.empty()) refuse("[morvane_cli] no valid bundle id given\n");
  return bundles;
}

Flags parseFlags(std::string_view text) {
  Flags flags;
  for (const std::string_view piece : splitAt(text, ',')) {
    const std::vector<std::string_view> parts = splitAt(piece, '=');
    if (parts.size() != 2) continue;
    const std::string_view key = trimmed(parts[0]);
    if (!key.empty()) flags.insert_or_assign(std::string(key), trimmed(parts[1]) == "1");
  }
  return flags;
}

bool isValidToken(std::string_view text) {
  return isSafeToken(text, "^[A-Za-z0-9._-]+$");
}

bool isValidBackupFilename(std::string_view text) {
  return isSafeToken(text, R"(^[A-Za-z0-9._-]+\.morvane$)");
}

bool matchesRegex(std::string_view text, std::string_view pattern) {
  if (text.empty()) return false;
  const platform::FirstMatch match = platform::findFirstMatch(text, pattern);
  return match.range && match.range->start == 0 && match.range->length == match.textLength;
}

}  // namespace morvane
