#pragma once

#include <string>

#include "reset/flags.h"

namespace morvane {

/// What happens to the app's processes: stopped before and after, or left running.
enum class ResetMode { kill, clear };

/// Returns the app to the state of a fresh install, step by step, each as far as it goes, and
/// prints one result line. The flags "appdata" (default on), "sys" (on) and "receipt" (off) say
/// which parts are wanted. True when anything was found to reset.
bool doReset(const std::string& bundleId, ResetMode mode, const Flags& flags);

}  // namespace morvane
