#pragma once

#include <string_view>

#include "files/copy_tree.h"

namespace morvane {

/// Logs how many entries of an app could not be copied; nothing when all were.
void logIncompleteCopy(std::string_view bundleId, const CopyTally& tally);

}  // namespace morvane
