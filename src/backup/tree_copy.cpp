#include "backup/tree_copy.h"

#include <sys/stat.h>

#include "backup/keywords.h"
#include "files/open.h"

namespace morvane {
namespace {

// The mode of a folder until it gets the source's: of no use to anyone, so that a run that repeats
// one that was killed knows by it what that one has not finished.
constexpr mode_t kUnfinished = 0;

bool isUnfinished(int fd) {
  struct stat status;
  return fstat(fd, &status) == 0 && (status.st_mode & ~static_cast<mode_t>(S_IFMT)) == kUnfinished;
}

/// The folder at `place`; where it is missing, made for us alone until it gets the source's owner
/// and mode. `isNew` tells which.
UniqueFd openOrMake(const Place& place, bool& isNew) {
  const SplitPath split = splitPath(place.path);
  const UniqueFd parent = makeFoldersAt(place.dirFd, split.parent);
  if (!parent) return {};
  UniqueFd folder = makePrivateFolderAt(parent.get(), split.name.c_str(), kUnfinished);
  isNew = static_cast<bool>(folder);
  if (folder || errno != EEXIST) return folder;
  folder = openFolderTrustingAt(parent.get(), split.name);
  isNew = folder && isUnfinished(folder.get());
  return folder;
}

/// The folder to copy, and its status before it was read, which is an access that its times tell.
struct Source {
  UniqueFd fd;
  struct stat status;
};

bool openSource(const Place& place, Source& source) {
  source.fd = openFolderTrustingAt(place.dirFd, place.path);
  return source.fd && fstat(source.fd.get(), &source.status) == 0;
}

}  // namespace

void copyTreeFiltered(const Place& source, const Place& destination,
                      const std::vector<std::string>& needles, CopyTally& tally,
                      CopyObserver* observer) {
  Source src;
  if (!openSource(source, src)) return tally.noteUnopened(errno);
  bool isNew = false;
  const UniqueFd dst = openOrMake(destination, isNew);
  if (!dst) return tally.noteFatal(errno);
  KeywordFilter filter(needles);
  copyContents(src.fd.get(), dst.get(),
               {.onExisting = OnExisting::keep, .filter = &filter, .observer = observer}, tally);
  tally.note(platform::copyFolderAttributes(src.fd.get(), src.status, dst.get()));
}

void copyTreeReplacing(const Place& source, const Place& destination, CopyTally& tally,
                       CopyObserver* observer) {
  Source src;
  if (!openSource(source, src)) return tally.noteUnopened(errno);
  bool isNew = false;
  const UniqueFd dst = openOrMake(destination, isNew);
  if (!dst) return tally.noteFatal(errno);
  copyContents(src.fd.get(), dst.get(),
               {.onExisting = OnExisting::replaceTopLevel, .observer = observer}, tally);
  if (isNew) {
    return tally.note(platform::copyFolderAttributes(src.fd.get(), src.status, dst.get()));
  }
  // The folder is the app's own and keeps its owner and mode. That we have written in it is no
  // change of the app's.
  (void)platform::setTimes(dst.get(), src.status);
}

}  // namespace morvane
