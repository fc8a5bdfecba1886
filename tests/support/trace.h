#pragma once

#include <sys/types.h>

#include <array>
#include <functional>
#include <string>

namespace morvane::test {

/// A system call at whose entry a process is held: a moment at which someone else can change what a
/// name stands for or see what he should not, at which the process can be killed, or the call fail.
struct Call {
  pid_t pid = -1;
  size_t count = 0;  // of the process's calls, from 1, since its body or the last exec began
  long number = 0;
  std::array<unsigned long, 6> arguments{};

  /// What the call names, or has open, as it is now. Empty for calls that are about neither.
  [[nodiscard]] std::string path() const;
  [[nodiscard]] bool opens() const;

  /// Skips the call and gives it this result (a negative errno); or changes one of its arguments.
  void answer(long result) const;
  void set(size_t argument, unsigned long value) const;
};

using AtCall = std::function<void(const Call&)>;
using Body = std::function<void()>;

/// Runs `body`, after `before`, in a process of its own, with `atCall`, if given, at each system
/// call of the body. Returns its exit status, or 128 + the signal that ended it; it has 100 s.
int runInChild(const Body& body, const AtCall& atCall = {}, const Body& before = {});

/// How many descriptors a process has open.
size_t openDescriptors(pid_t pid);

}  // namespace morvane::test
