#pragma once

namespace morvane {

/// Writes how the tool is called to standard output.
void printUsage();

}  // namespace morvane
