#include "files/open.h"

#include <fcntl.h>

#include "platform/directory.h"
#include "platform/open_at.h"

namespace morvane {
namespace {

constexpr int kReadFlags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
constexpr int kFolderFlags = kReadFlags | O_DIRECTORY;
constexpr int kMaxLinks = 32;  // as the kernels do (MAXSYMLINKS)
constexpr mode_t kParentMode = 0755;

/// The text of the link `name`, when it is one that root or our own user made. Owner and text are
/// read from one open object, so the link cannot be swapped in between.
std::optional<std::string> trustedLinkText(int dirFd, const char* name) {
  const UniqueFd link(platform::openLinkAt(dirFd, name));
  struct stat status;
  std::string text;
  if (!link || fstat(link.get(), &status) != 0 || !S_ISLNK(status.st_mode)) return std::nullopt;
  if (status.st_uid != 0 && status.st_uid != geteuid()) return std::nullopt;
  if (!platform::readOpenLink(link.get(), text)) return std::nullopt;
  return text;
}

/// For the reason that a person is given, and for nothing else.
bool isLinkAt(int dirFd, const char* name) {
  const std::optional<struct stat> status = statusAt(dirFd, name);
  return status && S_ISLNK(status->st_mode);
}

std::string takeComponent(std::string& path) {
  const size_t start = path.find_first_not_of('/');
  if (start == std::string::npos) {
    path.clear();
    return "";
  }
  const size_t end = path.find('/', start);
  std::string component = path.substr(start, end - start);
  path = end == std::string::npos ? "" : path.substr(end);
  return component;
}

bool hasMoreComponents(const std::string& path) {
  return path.find_first_not_of('/') != std::string::npos;
}

/// Walks `path` one component at a time, so that each link in it can be looked at.
UniqueFd openStepByStep(int dirFd, std::string path, int lastFlags) {
  UniqueFd current;
  int at = dirFd;
  const auto moveTo = [&](UniqueFd next) {
    current = std::move(next);
    at = current.get();
  };
  if (path.starts_with('/')) moveTo(UniqueFd(open("/", kFolderFlags)));
  if (at == -1) return {};
  for (int links = 0; links <= kMaxLinks;) {
    std::string name = takeComponent(path);
    if (name.empty()) name = ".";
    const bool last = !hasMoreComponents(path);
    UniqueFd next(openat(at, name.c_str(), (last ? lastFlags : kFolderFlags) | O_NOFOLLOW));
    if (next) {
      if (last) return next;
      moveTo(std::move(next));
      continue;
    }
    // With O_DIRECTORY, a link at the end is "not a directory" to Linux.
    if (errno != ELOOP && errno != ENOTDIR) return {};
    const std::optional<std::string> text = trustedLinkText(at, name.c_str());
    if (!text) return errno = isLinkAt(at, name.c_str()) ? ELOOP : ENOTDIR, UniqueFd();
    path.insert(0, *text);
    if (path.starts_with('/')) moveTo(UniqueFd(open("/", kFolderFlags)));
    if (at == -1) return {};
    ++links;
  }
  errno = ELOOP;
  return {};
}

UniqueFd openTrusting(int dirFd, const std::string& path, int flags) {
  UniqueFd whole(platform::openWithoutLinksAt(dirFd, path.c_str(), flags));
  if (whole || errno == ENOENT) return whole;
  return openStepByStep(dirFd, path, flags);
}

}  // namespace

UniqueFd openFolderAt(int dirFd, const char* name) {
  return UniqueFd(openat(dirFd, name, kFolderFlags | O_NOFOLLOW));
}

UniqueFd openToReadAt(int dirFd, const char* name) {
  return UniqueFd(openat(dirFd, name, kReadFlags | O_NOFOLLOW));
}

UniqueFd openFolderTrustingAt(int dirFd, const std::string& path) {
  return openTrusting(dirFd, path, kFolderFlags);
}

UniqueFd openFolderTrusting(const std::string& path) {
  return openTrusting(AT_FDCWD, path, kFolderFlags);
}

UniqueFd openToReadTrustingAt(int dirFd, const std::string& path) {
  return openTrusting(dirFd, path, kReadFlags);
}

UniqueFd makeFoldersAt(int dirFd, const std::string& path) {
  UniqueFd folder = openFolderTrustingAt(dirFd, path);
  if (folder || errno != ENOENT) return folder;
  const SplitPath split = splitPath(path);
  const UniqueFd parent = makeFoldersAt(dirFd, split.parent);
  if (!parent) return {};
  return makeFolderAt(parent.get(), split.name.c_str(), kParentMode);
}

UniqueFd makeFolderAt(int dirFd, const char* name, mode_t mode) {
  if (mkdirat(dirFd, name, mode) == 0) return openFolderAt(dirFd, name);
  if (errno != EEXIST) return {};
  return openFolderTrustingAt(dirFd, name);
}

UniqueFd makePrivateFolderAt(int dirFd, const char* name, mode_t mode) {
  if (mkdirat(dirFd, name, mode) != 0) return {};
  UniqueFd folder = openFolderAt(dirFd, name);
  if (folder && !isPrivateFolder(folder.get())) return errno = ESTALE, UniqueFd();
  return folder;
}

bool isPrivateFolder(int fd) {
  static const uid_t ourUser = geteuid();
  struct stat status;
  return fstat(fd, &status) == 0 && status.st_uid == ourUser &&
         (status.st_mode & (S_IRWXG | S_IRWXO)) == 0;
}

std::optional<std::vector<FolderId>> lineageOf(int fd) {
  std::vector<FolderId> lineage;
  UniqueFd opened;
  struct stat status;
  while (fstat(fd, &status) == 0) {
    const FolderId folder(status);
    if (!lineage.empty() && lineage.back() == folder) return lineage;  // the root holds itself
    lineage.push_back(folder);
    opened = openFolderAt(fd, "..");
    if (!opened && (errno == EACCES || errno == EPERM)) return lineage;
    fd = opened.get();
  }
  return std::nullopt;
}

std::optional<struct stat> statusAt(int dirFd, const char* name) {
  struct stat status;
  if (fstatat(dirFd, name, &status, AT_SYMLINK_NOFOLLOW) != 0) return std::nullopt;
  return status;
}

bool existsAt(int dirFd, const char* name) {
  struct stat status;
  return fstatat(dirFd, name, &status, 0) == 0;
}

bool isFolderAt(int dirFd, const char* name) {
  struct stat status;
  return fstatat(dirFd, name, &status, 0) == 0 && S_ISDIR(status.st_mode);
}

std::vector<std::string> namesIn(int fd) {
  std::vector<std::string> names;
  platform::DirectoryReader reader;
  reader.start(fd, platform::ReadUpTo::end, platform::FolderPosition::anywhere);
  while (const platform::DirectoryEntry* entry = reader.next())
    names.emplace_back(entry->name);
  return names;
}

SplitPath splitPath(const std::string& path) {
  const size_t end = path.find_last_not_of('/');
  if (end == std::string::npos) return {"/", "."};
  const size_t slash = path.rfind('/', end);
  if (slash == std::string::npos) return {".", path.substr(0, end + 1)};
  return {path.substr(0, slash == 0 ? 1 : slash), path.substr(slash + 1, end - slash)};
}

}  // namespace morvane
