#include "files/copy_tree.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "files/open.h"
#include "files/remove_tree.h"
#include "files/tree_walk.h"

namespace morvane {
namespace {

using platform::CopyOutcome;
using platform::CopySide;

constexpr mode_t kPrivateFolder = S_IRWXU;  // until the source's owner and mode are given
constexpr mode_t kPlainFolder = S_IRWXU | S_IRGRP | S_IXGRP | S_IROTH | S_IXOTH;

bool isMediumError(int error) {
  return error == ENOSPC || error == EDQUOT || error == EIO || error == EROFS;
}
bool isOurShortage(int error) {
  return error == EMFILE || error == ENFILE || error == ENOMEM;
}

CopyOutcome destinationFailure() {
  return {errno, CopySide::destination};
}
CopyOutcome sourceFailure() {
  return {errno, CopySide::source};
}

class Copier : public TreeVisitor {
 public:
  Copier(int dst, const CopyOptions& options, CopyTally& tally)
      : options_(options),
        tally_(tally),
        dstLineage_(lineageOf(dst).value_or(std::vector<FolderId>())) {
    place_.start(dst);
  }

  void visitFile(int dirFd, const char* name, FileType type) override {
    if (isLeftOut(name)) return;
    if (!inStep()) return (void)++tally_.failed;
    CopyOutcome outcome = copyEntry(dirFd, name, type);
    // Most often there is nothing to be replaced, so that is found out by trying.
    if (replaces() && (!outcome.ok() || type == FileType::other)) {
      (void)removeEntryAt(place_.current(), name);  // if it stays, the copy says so
      if (isTaken(outcome)) outcome = copyEntry(dirFd, name, type);
    }
    // A file that is there already and is kept is the copy of an earlier, equal walk.
    if (!isTaken(outcome) || options_.onExisting != OnExisting::keep) tally_.note(outcome);
  }

  Descend visitFolder(int /*dirFd*/, const char* name) override {
    return isLeftOut(name) ? Descend::no : Descend::yes;
  }

  Descend enteredFolder(const char* name, int fd) override {
    struct stat status;  // before the folder is read, which is an access that its times tell
    CopyOutcome made{ESTALE, CopySide::source};
    if (inStep()) made = fstat(fd, &status) == 0 ? makeCopyOf(status, name) : sourceFailure();
    tally_.note(made);
    if (!made.ok()) return Descend::no;
    statuses_.push_back(status);
    if (options_.filter) options_.filter->enterFolder(name);
    return Descend::yes;
  }

  void leavingFolder(int fd) override {
    if (inStep()) {
      tally_.note(platform::copyFolderAttributes(fd, statuses_.back(), place_.current()));
    } else {
      ++tally_.failed;
    }
    goUp();
  }

  // What was still to be copied there is missing from the copy.
  void lostFolder(int error) override {
    tally_.note({error, CopySide::source});
    goUp();
  }

  Again leftFolder(int /*dirFd*/, const char* /*name*/) override { return Again::no; }

  void failed(const char* /*name*/, int error) override { tally_.note({error, CopySide::source}); }

 private:
  void goUp() {
    if (options_.filter) options_.filter->leaveFolder();
    if (inStep()) {
      if (const int error = place_.leave(); error != 0) {
        tally_.note({error, CopySide::destination});
      }
    }
    statuses_.pop_back();
  }

  [[nodiscard]] bool isLeftOut(const char* name) {
    if (!options_.filter || !options_.filter->leavesOut(name)) return false;
    ++tally_.leftOut;
    return true;
  }

  /// Whether the destination's place corresponds to the source's: not if someone has moved the
  /// folders that are being written away, until the walk is back where both are known.
  [[nodiscard]] bool inStep() const { return place_.depth() == statuses_.size(); }

  /// Whether what is in the current folder takes the place of its namesakes in the destination.
  [[nodiscard]] bool replaces() const {
    return options_.onExisting == OnExisting::replaceTopLevel && statuses_.empty();
  }

  static bool isTaken(const CopyOutcome& outcome) {
    return outcome.error == EEXIST && outcome.side == CopySide::destination;
  }

  CopyOutcome copyEntry(int dirFd, const char* name, FileType type) {
    if (type == FileType::other) return {};
    if (type != FileType::link) return copyFile(dirFd, name);
    if (options_.filter && isFolderAt(dirFd, name)) return makeEmptyFolder(dirFd, name);
    return platform::copyLinkAt(dirFd, name, place_.current(), name);
  }

  CopyOutcome copyFile(int dirFd, const char* name) {
    const UniqueFd file = openToReadAt(dirFd, name);
    struct stat status;
    if (!file || fstat(file.get(), &status) != 0) return sourceFailure();
    if (S_ISDIR(status.st_mode))
      return {EISDIR, CopySide::source};  // replaced since the listing...
    if (!S_ISREG(status.st_mode)) return {ENOENT, CopySide::source};  // ...by what is never copied
    const auto bytes = static_cast<std::uint64_t>(status.st_size);
    if (options_.observer) options_.observer->copying(name, bytes);
    const CopyOutcome outcome = platform::copyFileAt(file.get(), status, place_.current(), name);
    if (outcome.ok() && options_.observer) options_.observer->copied(name, bytes);
    return outcome;
  }

  CopyOutcome makeEmptyFolder(int dirFd, const char* name) {
    const std::optional<struct stat> link = statusAt(dirFd, name);
    if (!link) return sourceFailure();
    const UniqueFd folder = makeFolderAt(place_.current(), name, kPlainFolder);
    if (!folder) return destinationFailure();
    if (fchown(folder.get(), link->st_uid, link->st_gid) != 0) return destinationFailure();
    return {platform::setTimes(folder.get(), *link), CopySide::destination};
  }

  /// No folder is copied into itself: that would have no end.
  CopyOutcome makeCopyOf(const struct stat& folder, const char* name) {
    const auto end = dstLineage_.end();
    if (std::find(dstLineage_.begin(), end, FolderId(folder)) == end) return makeFolder(name);
    return {EINVAL, CopySide::source};
  }

  CopyOutcome makeFolder(const char* name) {
    bool made = mkdirat(place_.current(), name, kPrivateFolder) == 0;
    if (!made && errno == EEXIST && replaces()) {
      (void)removeEntryAt(place_.current(), name);
      made = mkdirat(place_.current(), name, kPrivateFolder) == 0;
    }
    if (!made && (errno != EEXIST || options_.onExisting != OnExisting::keep)) {
      return destinationFailure();
    }
    if (const int error = place_.enter(name); error != 0) return {error, CopySide::destination};
    if (!made || isPrivateFolder(place_.current())) return {};
    (void)place_.leave();  // where it leads is noticed by inStep
    return {ESTALE, CopySide::destination};
  }

  const CopyOptions& options_;
  CopyTally& tally_;
  const std::vector<FolderId> dstLineage_;
  DirStack place_;                     // in the destination
  std::vector<struct stat> statuses_;  // of the source's folders on the way down, without the root
};

}  // namespace

void CopyTally::note(const platform::CopyOutcome& outcome) {
  const bool vanished = outcome.error == ENOENT && outcome.side == CopySide::source;
  if (outcome.ok() || vanished) return;
  const bool medium = outcome.side == CopySide::destination && isMediumError(outcome.error);
  if (medium || isOurShortage(outcome.error)) return noteFatal(outcome.error);
  ++failed;
}

void CopyTally::noteFatal(int error) {
  ++failed;
  if (fatalError == 0) fatalError = error;
}

bool CopyTally::noteUnopened(int error) {
  if (error == ENOENT || error == ENOTDIR || error == ELOOP) return false;
  note({error, CopySide::source});
  return true;
}

void copyContents(int src, int dst, const CopyOptions& options, CopyTally& tally) {
  Copier copier(dst, options, tally);
  TreeWalk walk(copier, platform::ReadUpTo::end);
  walk.run(src);
}

}  // namespace morvane
