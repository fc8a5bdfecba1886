#pragma once

#include <string>

namespace morvane::platform {

/// Opens, with `flags`, a path of several components below `dirFd` of which not one may be a
/// symbolic link. Returns the descriptor, or -1 with errno: ELOOP for a link, ENOTSUP where the
/// platform has no such call.
[[nodiscard]] int openWithoutLinksAt(int dirFd, const char* path, int flags);

/// Opens the symbolic link `name` itself, so that its owner and its text can be had from one and
/// the same object. Returns the descriptor, or -1 with errno.
[[nodiscard]] int openLinkAt(int dirFd, const char* name);

/// The text of the link that openLinkAt opened; false with errno on failure.
[[nodiscard]] bool readOpenLink(int linkFd, std::string& text);

}  // namespace morvane::platform
