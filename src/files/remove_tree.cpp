#include "files/remove_tree.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "files/open.h"
#include "files/tree_walk.h"
#include "platform/file_copy.h"

namespace morvane {
namespace {

// Someone who keeps filling the folders that are being removed, or keeps changing what a name
// stands for, must not keep us for ever.
constexpr size_t kMaxRepeats = 100000;
constexpr int kMaxKindChanges = 16;

bool unlinkEntry(int dirFd, const char* name, int flags) {
  if (unlinkat(dirFd, name, flags) == 0) return true;
  if (errno != EPERM && errno != EACCES) return false;
  const int refused = errno;
  if (platform::clearUserFlagsAt(dirFd, name) && unlinkat(dirFd, name, flags) == 0) return true;
  errno = refused;
  return false;
}

bool isFolderItself(int dirFd, const char* name) {
  const std::optional<struct stat> status = statusAt(dirFd, name);
  return status && S_ISDIR(status->st_mode);
}

/// Files are removed as they are listed and each folder once it has been left. Whether a folder is
/// empty is for the removal itself to say: while it is not, it is listed again, until a listing to
/// the end has changed nothing. So entries that a file system passes over because the folder
/// changed under the listing, and entries that have changed their kind meanwhile, go in a later
/// pass. A subfolder that cannot be removed is gone through once, not in each pass of each folder
/// above it.
class Remover : public TreeVisitor {
 public:
  explicit Remover(const char* keep) : keep_(keep) {}

  /// Removes what is below the folder open at `dirFd`.
  void empty(int dirFd) {
    TreeWalk walk(*this, platform::ReadUpTo::likelyEnd);
    passes_.assign(1, Pass());
    do {
      passes_.back().changes = 0;
      passes_.back().listing = platform::ReadUpTo::end;
      walk.run(dirFd);
    } while (again(passes_.back()) == Again::yes);
  }

  void visitFile(int dirFd, const char* name, FileType /*type*/) override {
    if (isKept(name)) return;
    // The attempt on what is a folder by now fails with EISDIR, or EPERM as POSIX has it.
    const bool changed = unlinkEntry(dirFd, name, 0) || errno == EISDIR ||
                         (errno == EPERM && isFolderItself(dirFd, name));
    if (changed) ++passes_.back().changes;
  }

  Descend visitFolder(int /*dirFd*/, const char* name) override {
    return isKept(name) || passes_.back().stuck.contains(name) ? Descend::no : Descend::yes;
  }

  Descend enteredFolder(const char* /*name*/, int /*fd*/) override {
    Pass pass;
    if (std::exchange(repeating_, false)) {
      pass.listing = platform::ReadUpTo::end;
      pass.stuck = std::move(left_.stuck);
    }
    passes_.push_back(std::move(pass));
    return Descend::yes;
  }

  void leavingFolder(int /*fd*/) override {
    left_ = std::move(passes_.back());
    passes_.pop_back();
  }

  Again leftFolder(int dirFd, const char* name) override {
    // A file that is in its place by now goes in the next pass.
    if (unlinkEntry(dirFd, name, AT_REMOVEDIR) || errno == ENOTDIR) {
      ++passes_.back().changes;
    } else if ((errno == ENOTEMPTY || errno == EEXIST) && again(left_) == Again::yes) {
      repeating_ = true;
      return Again::yes;
    } else {
      passes_.back().stuck.insert(name);
    }
    return Again::no;
  }

  void failed(const char* /*name*/, int error) override {
    repeating_ = false;
    if (error == ENOTDIR || error == ELOOP) ++passes_.back().changes;  // it is no folder any more
  }

  void lostFolder(int /*error*/) override { passes_.pop_back(); }

 private:
  /// One listing of a folder, with the removal of what it names.
  struct Pass {
    size_t changes = 0;  // directly in the folder: removals, entries that changed their kind
    platform::ReadUpTo listing = platform::ReadUpTo::likelyEnd;
    std::set<std::string, std::less<>> stuck;  // subfolders that could not be removed
  };

  /// Whether another pass over a folder has a point.
  Again again(const Pass& pass) {
    const bool settled = pass.changes == 0 && pass.listing == platform::ReadUpTo::end;
    if (settled || repeats_ == kMaxRepeats) return Again::no;
    ++repeats_;
    return Again::yes;
  }

  [[nodiscard]] bool isKept(const char* name) const {
    return keep_ && passes_.size() == 1 && std::string_view(name) == keep_;
  }

  const char* keep_;
  size_t repeats_ = 0;
  std::vector<Pass> passes_;  // of each folder on the way down, the root's first
  Pass left_;                 // of the folder just left
  bool repeating_ = false;    // the folder entered next is that one
};

bool removeFolderAt(int dirFd, const char* name) {
  const UniqueFd folder = openFolderAt(dirFd, name);
  if (folder) Remover(nullptr).empty(folder.get());
  return unlinkEntry(dirFd, name, AT_REMOVEDIR);
}

}  // namespace

void removeContents(int dirFd, const char* keep) {
  Remover(keep).empty(dirFd);
}

bool removeEntryAt(int dirFd, const char* name) {
  std::optional<struct stat> status = statusAt(dirFd, name);
  for (int i = 0; status && i < kMaxKindChanges; ++i) {
    const bool folder = S_ISDIR(status->st_mode);
    if (folder ? removeFolderAt(dirFd, name) : unlinkEntry(dirFd, name, 0)) return true;
    status = statusAt(dirFd, name);
    if (status && S_ISDIR(status->st_mode) == folder) return false;
  }
  return !status && errno == ENOENT;
}

}  // namespace morvane
