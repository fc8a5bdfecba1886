#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <functional>
#include <string>

namespace morvane::test {

/// A process held at the entry of a system call that names an entry of a folder, lists one, or
/// gives an open file its owner, mode or times: the moments at which someone else can change what a
/// name stands for, or see what he should not.
struct Stop {
  pid_t pid = -1;
  size_t index = 0;  // of the stops of this run
  std::uint64_t call = 0;
  std::array<std::uint64_t, 6> arguments{};
  std::string path{};  // what the call names, or is open there, as it is now

  /// Lets the call fail with `error`, or changes one of its arguments. Only on x86-64.
  void refuse(int error) const;
  void set(size_t argument, std::uint64_t value) const;
};

/// Whether calls can be changed on this machine, or only looked at.
bool stopsCanChangeCalls();

/// A process of its own that runs `body` as often as it is told to.
class StoppedRuns {
 public:
  explicit StoppedRuns(const std::function<void()>& body);
  ~StoppedRuns();
  StoppedRuns(const StoppedRuns&) = delete;
  StoppedRuns& operator=(const StoppedRuns&) = delete;

  /// Runs once, with `at` called at each such moment. 0, or how the process ended instead: its
  /// status, or 128 + the signal. One that takes longer than a minute is killed.
  int run(const std::function<void(Stop&)>& at);

 private:
  pid_t pid_;
};

}  // namespace morvane::test
