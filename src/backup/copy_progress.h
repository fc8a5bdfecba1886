#pragma once

#include "files/copy_tree.h"

namespace morvane {

/// Who is to be told of each file that is copied: null when nobody watches, and then a copy costs
/// nothing more.
[[nodiscard]] CopyObserver* copyProgress();

}  // namespace morvane
