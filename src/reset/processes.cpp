#include "reset/processes.h"

#include <algorithm>

#include "platform/process_table.h"

namespace morvane {
namespace {

// The C library's tolower asks the locale; the process table holds bytes.
char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool equalIgnoringCase(char a, char b) {
  return lower(a) == lower(b);
}

bool matches(std::string_view shortName, std::string_view needle, NameMatch match) {
  if (match == NameMatch::containing) {
    return std::search(shortName.begin(), shortName.end(), needle.begin(), needle.end(),
                       equalIgnoringCase) != shortName.end();
  }
  const std::string_view name = shortName.substr(0, platform::kShortNameLength);
  const std::string_view wanted = needle.substr(0, platform::kShortNameLength);
  return std::equal(name.begin(), name.end(), wanted.begin(), wanted.end(), equalIgnoringCase);
}

}  // namespace

void killProcs(std::string_view name, NameMatch match) {
  if (name.empty()) return;
  for (const platform::ProcessEntry& process : platform::processTable()) {
    if (process.pid > 0 && matches(process.shortName, name, match)) {
      platform::killProcess(process.pid);
    }
  }
}

void killProcessesNamed(std::string_view name) {
  killProcs(name, NameMatch::whole);
}

void killProcessesContaining(std::string_view fragment) {
  killProcs(fragment, NameMatch::containing);
}

std::string execNameForBundle(const std::string& bundleId) {
  return bundleId.substr(bundleId.rfind('.') + 1);  // npos + 1 is 0: the whole identifier
}

}  // namespace morvane
