#pragma once

#include <span>

#include "report/exit_status.h"

namespace morvane {

/// Runs the one command that `arguments` (the program's name first) ask for. All of them are
/// checked before anything is touched. Refused arguments and failed backup-store commands end the
/// process; otherwise returns the status to end it with.
[[nodiscard]] ExitStatus runCommand(std::span<const char* const> arguments);

}  // namespace morvane
