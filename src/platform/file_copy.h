#pragma once

#include <sys/stat.h>

#include <cstdint>

namespace morvane::platform {

/// Which side of a copy a failure belongs to.
enum class CopySide { source, destination };

/// The outcome of a copy: errno 0 when it is complete.
struct [[nodiscard]] CopyOutcome {
  int error = 0;
  CopySide side = CopySide::source;

  [[nodiscard]] bool ok() const { return error == 0; }
};

/// Makes the new regular file `name` in the folder `dstDir` with everything the platform keeps of
/// the file open at `src`, whose status is `source`: content (cloned where the file system can,
/// with holes as holes), owner, group, mode, times to the nanosecond, extended attributes, and on
/// Darwin access lists and flags. Nobody can open the copy meanwhile who could not open it
/// afterwards. Fails with EEXIST when the name is taken; after any other failure nothing is left
/// under the name.
CopyOutcome copyFileAt(int src, const struct stat& source, int dstDir, const char* name);

/// Makes the new symbolic link `dstName` in `dstDir` as the link `name` in `srcDir` is, with text,
/// owner, times and attributes. Whole or absent, as above.
CopyOutcome copyLinkAt(int srcDir, const char* name, int dstDir, const char* dstName);

/// Gives the folder open at `dst` the owner, mode, times, attributes (and access list and flags) of
/// the folder open at `src`. Goes on after a failure and reports the first.
CopyOutcome copyFolderAttributes(int src, const struct stat& source, int dst);

/// Sets the access and modification times of the file or folder open at `fd` to those in `from`.
/// Returns errno.
[[nodiscard]] int setTimes(int fd, const struct stat& from);

/// Lets what the owner's flags protect be deleted: clears the user-set immutable and append-only
/// flags of `name` in `dirFd` (never following a link) and of the folder `dirFd` itself. False when
/// there was none to clear or it failed. System-set flags stay.
[[nodiscard]] bool clearUserFlagsAt(int dirFd, const char* name);

}  // namespace morvane::platform
