#pragma once

#include <cstdint>
#include <string_view>

/// One transient line for a person who waits at a terminal: what is being done, files and bytes so
/// far, and the rate. It is there only while standard error is a terminal of which we are the
/// foreground, and is no part of the tool's output: to everyone else every byte is as if it did not
/// exist.
namespace morvane::progress {

/// Whether there is such a line in this run. Asks the system once.
[[nodiscard]] bool isWatched();

/// Begins a step, "<what> <object>"; counts begin anew.
void startStep(std::string_view what, std::string_view object);

/// Within a step: the file `name` of that many bytes is next, and then it is done.
void startFile(std::string_view name, std::uint64_t bytes);
void finishFile(std::uint64_t bytes);

/// Takes the line away, if it is there. It returns by itself with what comes next.
void erase();

}  // namespace morvane::progress
