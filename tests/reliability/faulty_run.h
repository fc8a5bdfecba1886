#pragma once

#include <string>
#include <vector>

#include "support/command.h"

namespace morvane::test {

/// What is done to a run at one of its system calls, which count from 1. A call that is made to
/// fail is not made, except for close.
struct Fault {
  enum class Kind { none, end, failOnce, failFromThere };
  Kind kind = Kind::none;
  size_t at = 0;
  int error = 0;  // from there on, of the calls that can return it
};

struct FaultyRun {
  Outcome outcome;
  std::vector<Call> calls;
  size_t ownCalls = 0;   // the index of the tool's first own: before it, the C library starts
  size_t openAtEnd = 0;  // descriptors, the standard ones included
};

/// Runs the tool with `arguments` and carries out `fault`. Its pauses take no time. There are two
/// ways: traced, the built tool is held at each of its system calls, and killed at the end that a
/// fault sets it; in the failing layer its code runs in a child of the test, over a C library that
/// fails, and its end is the first refused allocation, `at` counting those.
FaultyRun runFaulty(const std::vector<std::string>& arguments, const Fault& fault = {},
                    const AtCall& atCall = {});

/// What the ways are called in the figures.
extern const char* const kEnded;
extern const char* const kFailed;

/// Whether `fault` has this call fail.
bool fails(const Fault& fault, const Call& call);

/// The errors among ENOSPC, EIO, EDQUOT, EACCES, EMFILE and ENOMEM that `call` can return. None for
/// what is written to the standard streams: nothing depends on it.
std::vector<int> possibleErrors(const Call& call);

}  // namespace morvane::test
