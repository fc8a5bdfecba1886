#include "platform/process_table.h"

#include <sys/param.h>
#include <sys/sysctl.h>

#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace morvane::platform {
namespace {

// The kernel's record as it lies in memory. A header that says otherwise must not get into a tool
// that sends SIGKILL to the numbers it finds there.
static_assert(sizeof(kinfo_proc) == 648);
static_assert(offsetof(kinfo_proc, kp_proc.p_pid) == 40);
static_assert(offsetof(kinfo_proc, kp_proc.p_comm) == 243);
static_assert(sizeof(kinfo_proc::kp_proc.p_pid) == sizeof(pid_t));
static_assert(MAXCOMLEN == kShortNameLength);

struct Freer {
  void operator()(void* memory) const { std::free(memory); }
};
using Buffer = std::unique_ptr<char, Freer>;

/// The kernel's table into `buffer`, or its size where that is null (sysctl(3)).
bool readTable(char* buffer, std::size_t& size) {
  int name[] = {CTL_KERN, KERN_PROC, KERN_PROC_ALL, 0};
  return sysctl(name, 4, buffer, &size, nullptr, 0) == 0;
}

}  // namespace

std::vector<ProcessEntry> processTable() {
  std::size_t size = 0;
  if (!readTable(nullptr, size) || size == 0) return {};
  // Exactly as much as was asked for, and one attempt: a table that has outgrown it meanwhile is
  // skipped.
  const Buffer buffer(static_cast<char*>(std::malloc(size)));
  if (!buffer || !readTable(buffer.get(), size)) return {};

  std::vector<ProcessEntry> entries;
  const std::size_t count = size / sizeof(kinfo_proc);
  entries.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    kinfo_proc record;
    std::memcpy(&record, buffer.get() + i * sizeof record, sizeof record);
    const char* name = record.kp_proc.p_comm;
    entries.push_back({record.kp_proc.p_pid, std::string(name, strnlen(name, kShortNameLength))});
  }
  return entries;
}

void killProcess(pid_t pid) {
  (void)kill(pid, SIGKILL);
}

}  // namespace morvane::platform
