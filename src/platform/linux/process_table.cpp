#include "platform/process_table.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <climits>
#include <csignal>
#include <cstring>
#include <memory>
#include <string_view>

namespace morvane::platform {
namespace {

constexpr size_t kLinuxNameLength = 15;  // TASK_COMM_LEN less its NUL, proc_pid_comm(5)

struct CloseStream {
  void operator()(DIR* stream) const { (void)closedir(stream); }
};

pid_t toPid(std::string_view name) {
  pid_t pid = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), pid);
  return error == std::errc() && end == name.data() + name.size() ? pid : 0;
}

std::string readComm(int procFd, std::string_view pid) {
  const std::string path = std::string(pid) + "/comm";
  const int fd = openat(procFd, path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd == -1) return "";
  std::array<char, 64> buffer;
  const ssize_t length = read(fd, buffer.data(), buffer.size());
  (void)close(fd);
  if (length <= 0) return "";
  std::string name(buffer.data(), static_cast<size_t>(length));
  if (name.ends_with('\n')) name.pop_back();
  return name;
}

std::string executableFileName(int procFd, std::string_view pid) {
  const std::string path = std::string(pid) + "/exe";
  std::array<char, PATH_MAX> buffer;
  const ssize_t length = readlinkat(procFd, path.c_str(), buffer.data(), buffer.size());
  if (length <= 0) return "";
  std::string target(buffer.data(), static_cast<size_t>(length));
  constexpr std::string_view kDeleted = " (deleted)";
  if (target.ends_with(kDeleted)) target.resize(target.size() - kDeleted.size());
  return target.substr(target.rfind('/') + 1);
}

/// Linux keeps one character less of the name than the phone. Where it was cut, the executable's
/// file name has the one that is missing.
std::string shortName(int procFd, std::string_view pid) {
  std::string name = readComm(procFd, pid);
  if (name.size() != kLinuxNameLength) return name;
  const std::string file = executableFileName(procFd, pid);
  return file.starts_with(name) ? file.substr(0, kShortNameLength) : name;
}

}  // namespace

std::vector<ProcessEntry> processTable() {
  std::vector<ProcessEntry> table;
  const std::unique_ptr<DIR, CloseStream> proc(opendir("/proc"));
  if (!proc) return table;
  while (const dirent* entry = readdir(proc.get())) {
    const std::string_view name = entry->d_name;
    const pid_t pid = toPid(name);
    if (pid > 0) table.push_back({pid, shortName(dirfd(proc.get()), name)});
  }
  return table;
}

void killProcess(pid_t pid) {
  (void)kill(pid, SIGKILL);  // gone already, or refused: passed over
}

}  // namespace morvane::platform
