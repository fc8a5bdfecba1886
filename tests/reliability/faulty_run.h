#pragma once

#include <string>
#include <vector>

#include "support/command.h"

namespace morvane::test {

/// What is done to a run at one of its system calls, which count from 1. A call that is made to
/// fail is not made; with the error 0 it lies.
struct Fault {
  enum class Kind { none, kill, failOnce, failFromThere };
  Kind kind = Kind::none;
  size_t at = 0;
  int error = 0;  // from there on, of the calls that can return it
};

struct FaultyRun {
  Outcome outcome;
  std::vector<Call> calls;
  size_t openAtEnd = 0;  // descriptors, the standard ones included
};

/// Runs the built morvane_cli with `arguments` and carries out `fault`. Its pauses take no time.
FaultyRun runFaulty(const std::vector<std::string>& arguments, const Fault& fault = {},
                    const AtCall& atCall = {});

/// The errors among ENOSPC, EIO, EDQUOT, EACCES, EMFILE and ENOMEM that `call` can return. None for
/// what is written to the standard streams: nothing depends on it.
std::vector<int> possibleErrors(const Call& call);

}  // namespace morvane::test
