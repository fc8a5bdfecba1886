#pragma once

#include <string>
#include <vector>

#include "files/copy_tree.h"

namespace morvane {

/// A path below an open folder; the folder does not matter for an absolute path.
struct Place {
  int dirFd = -1;
  std::string path;
};

/// Copies the folder `source` into the folder `destination` (made with its parents where missing),
/// leaving out every entry whose relative path holds a needle; a folder that does is left out
/// whole. `tally.leftOut` counts them. Does nothing where `source` is no folder.
void copyTreeFiltered(const Place& source, const Place& destination,
                      const std::vector<std::string>& needles, CopyTally& tally,
                      CopyObserver* observer = nullptr);

/// Copies the folder `source` to `destination`. Where that exists, what is directly in `source`
/// replaces its namesakes there and everything else stays. Does nothing where `source` is no
/// folder.
void copyTreeReplacing(const Place& source, const Place& destination, CopyTally& tally,
                       CopyObserver* observer = nullptr);

}  // namespace morvane
