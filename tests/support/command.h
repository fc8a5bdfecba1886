#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

#include "support/trace.h"

namespace morvane::test {

/// The built tools.
extern const char* const kCli;
extern const char* const kPhone;

/// How one run of a command ended and what it wrote. `status` is the exit status, or 128 + the
/// signal that ended it.
struct Outcome {
  int status = -1;
  std::string out;
  std::string err;

  friend bool operator==(const Outcome&, const Outcome&) = default;
  friend std::ostream& operator<<(std::ostream& stream, const Outcome& outcome);
};

/// Runs `body` in a process of its own and collects both streams. See runInChild.
Outcome collect(const Body& body, const AtCall& atCall = {});

/// Likewise a program with its arguments.
Outcome runCommand(const std::vector<std::string>& words, const AtCall& atCall = {});

/// Runs a script, in which "$0" is the built morvane_cli.
Outcome shell(const std::string& script);

/// Runs the built morvane_cli with `arguments`.
Outcome cli(std::vector<std::string> arguments, const AtCall& atCall = {});

/// Likewise, its arguments being the pieces of `line` between the separators, empty ones included.
Outcome cliLine(std::string_view line, char separator = ' ', const AtCall& atCall = {});

/// Becomes this program; does not come back.
[[noreturn]] void execute(const std::vector<std::string>& words);

/// Starts a process called `name` that sleeps until someone kills it.
pid_t startBystander(const std::string& name);
/// Ends it. Whether nobody had killed it before.
bool endBystander(pid_t pid);

}  // namespace morvane::test
