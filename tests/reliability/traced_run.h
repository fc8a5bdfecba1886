#pragma once

#include <array>
#include <functional>
#include <string>
#include <vector>

#include "support/command.h"

namespace morvane::test {

/// One system call of a run, as it was entered.
struct SystemCall {
  long number = 0;
  std::array<unsigned long, 6> arguments{};
};

/// What is done to a run at one of its system calls. Calls count from 1, the first after the
/// program was executed. A call that is made to fail is not made; with the error 0 it lies.
struct Fault {
  enum class Kind { none, kill, failOnce, failFromThere };
  Kind kind = Kind::none;
  size_t at = 0;
  int error = 0;  // from there on, of the calls that can return it
};

struct TracedRun {
  Outcome outcome;
  std::vector<SystemCall> calls;
  size_t openAtEnd = 0;  // descriptors, the standard ones included
};

/// Is told of each call and its count, before it is carried out.
using AtEntry = std::function<void(size_t, const SystemCall&)>;

/// Runs the built morvane_cli with `arguments`, holding it at every system call to carry out
/// `fault`. Its pauses take no time.
TracedRun runTraced(std::vector<std::string> arguments, const Fault& fault = {},
                    const AtEntry& atEntry = {});

/// The errors among ENOSPC, EIO, EDQUOT, EACCES, EMFILE and ENOMEM that `call` can return. None for
/// what is written to the standard streams: nothing depends on it.
std::vector<int> possibleErrors(const SystemCall& call);

/// The number of the first call that the tool's own code makes; before it, the C library starts.
size_t firstOwnCall(const TracedRun& run);

}  // namespace morvane::test
