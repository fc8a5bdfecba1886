#pragma once

namespace morvane::platform {

/// Blocks the thread for `seconds`, signals notwithstanding.
void pauseFor(double seconds);

}  // namespace morvane::platform
