#pragma once

namespace morvane {

/// Removes what is below the folder open at `dirFd`, and keeps the folder and, directly in it, the
/// entry named `keep`, if any. What cannot be removed costs itself and the folders above it;
/// everything else goes.
void removeContents(int dirFd, const char* keep = nullptr);

/// Removes `name` in `dirFd` with everything below it. A link is removed, not followed. True when
/// nothing is left under the name.
bool removeEntryAt(int dirFd, const char* name);

}  // namespace morvane
