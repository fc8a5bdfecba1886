#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace morvane::platform {

/// The length to which the phone's kernel cuts a process's short name (MAXCOMLEN, sys/param.h).
inline constexpr std::size_t kShortNameLength = 16;

struct ProcessEntry {
  pid_t pid = 0;
  std::string shortName;  // at most kShortNameLength bytes
};

/// Every process, in table order, as one snapshot; empty where the table cannot be read.
[[nodiscard]] std::vector<ProcessEntry> processTable();

/// Sends SIGKILL to `pid`. A process that is gone already, or that refuses, is passed over.
void killProcess(pid_t pid);

}  // namespace morvane::platform
