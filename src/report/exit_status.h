#pragma once

namespace morvane {

/// The process's exit statuses.
enum class ExitStatus {
  ok = 0,       // the command ran; for reset: at least one app was reset
  failed = 1,   // nothing to reset for any app, or a backup, restore or removal failed
  badUsage = 2  // the arguments were refused; nothing has been touched
};

/// Ends the process. Everything printed has left it already.
[[noreturn]] void endProcess(ExitStatus status);

}  // namespace morvane
