#pragma once

#include <string_view>

namespace morvane::bench {

/// The floors: the system calls that the work takes, in a bare loop without a thought of safety,
/// depth or failure. What the tool takes longer than these is its own.
void copyFolder(int src, int dst);
void removeFolder(int folder);
/// How many folders in `root` have a metadata file with `needle` in it.
int locate(const char* root, std::string_view needle);

}  // namespace morvane::bench
