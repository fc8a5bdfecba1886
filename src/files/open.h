#pragma once

#include <sys/stat.h>

#include <optional>
#include <string>
#include <vector>

#include "files/fd.h"

namespace morvane {

/// Below the folders that belong to the system, everything can be put there by an app. So nothing
/// in this part follows a link by accident, waits for a FIFO's writer or takes a terminal: what
/// opens something opens it here.
///
/// A link counts as *trusted* when root or the user we run as owns it: whoever can make such a link
/// needs no help of ours. The functions named "Trusting" follow trusted links in any component of
/// their path; an untrusted one makes the path one that does not exist (errno ELOOP). An app can
/// therefore not aim our work at someone else's files by planting a link.

/// Opens the folder `name` in `dirFd` for listing, following no link. Empty with errno on failure.
[[nodiscard]] UniqueFd openFolderAt(int dirFd, const char* name);

/// Opens `name` in `dirFd` for reading, following no link and never blocking. Only for what is a
/// regular file by its listing; what it is in truth is for the caller to check. Empty with errno.
[[nodiscard]] UniqueFd openToReadAt(int dirFd, const char* name);

/// Opens the folder at `path` (relative to `dirFd` unless absolute), following trusted links only.
/// Empty with errno on failure.
[[nodiscard]] UniqueFd openFolderTrustingAt(int dirFd, const std::string& path);
[[nodiscard]] UniqueFd openFolderTrusting(const std::string& path);

/// Opens the file at `path` for reading likewise; a FIFO at its end does not block.
[[nodiscard]] UniqueFd openToReadTrustingAt(int dirFd, const std::string& path);

/// Opens the folder at `path` (relative to `dirFd` unless absolute), making it and its missing
/// parents (mode 0755) first. Empty with errno on failure.
[[nodiscard]] UniqueFd makeFoldersAt(int dirFd, const std::string& path);

/// Makes the folder `name` in `dirFd` with `mode` and opens it. A folder that is there already is
/// opened as it is. Empty with errno on failure.
[[nodiscard]] UniqueFd makeFolderAt(int dirFd, const char* name, mode_t mode);

/// Makes the folder `name` in `dirFd`, for us alone (`mode` gives nothing to others), and opens it.
/// Empty with errno: EEXIST when the name is taken, ESTALE when someone has put another folder in
/// its place meanwhile.
[[nodiscard]] UniqueFd makePrivateFolderAt(int dirFd, const char* name, mode_t mode);

/// Whether the folder open at `fd` is ours and lets nobody else in. Where a parent belongs to an
/// app, a folder that we have just made can be replaced by another before it is opened.
[[nodiscard]] bool isPrivateFolder(int fd);

/// The status of `name` in `dirFd`, of the link itself where it is one; nothing with errno.
[[nodiscard]] std::optional<struct stat> statusAt(int dirFd, const char* name);

/// Whether something exists under `name` in `dirFd`, links followed: a dangling link is nothing.
[[nodiscard]] bool existsAt(int dirFd, const char* name);

/// Whether that something is a folder, links followed.
[[nodiscard]] bool isFolderAt(int dirFd, const char* name);

/// Tells a folder from every other, whatever it is called.
struct FolderId {
  dev_t device;
  ino_t inode;

  explicit FolderId(const struct stat& status) : device(status.st_dev), inode(status.st_ino) {}
  friend bool operator==(const FolderId&, const FolderId&) = default;
};

/// The folder open at `fd` and those that hold it, up to the root or to one that may not be
/// opened. Nothing with errno where one of them cannot be.
[[nodiscard]] std::optional<std::vector<FolderId>> lineageOf(int fd);

/// The names in the folder open at `fd`, in listing order; as many as can be read.
[[nodiscard]] std::vector<std::string> namesIn(int fd);

/// `path` split into the folder that holds it and its last component.
struct SplitPath {
  std::string parent;
  std::string name;
};
[[nodiscard]] SplitPath splitPath(const std::string& path);

}  // namespace morvane
