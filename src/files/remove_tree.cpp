#include "files/remove_tree.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <string_view>
#include <vector>

#include "files/open.h"
#include "files/tree_walk.h"
#include "platform/file_copy.h"

namespace morvane {
namespace {

// Someone who keeps filling the folders that are being removed must not keep us for ever.
constexpr size_t kMaxRepeats = 100000;

bool unlinkEntry(int dirFd, const char* name, int flags) {
  if (unlinkat(dirFd, name, flags) == 0) return true;
  if (errno != EPERM && errno != EACCES) return false;
  const int refused = errno;
  if (platform::clearUserFlagsAt(dirFd, name) && unlinkat(dirFd, name, flags) == 0) return true;
  errno = refused;
  return false;
}

/// Files are removed as they are listed and each folder once it has been left. Whether a folder is
/// empty is for the removal itself to say: while it is not, and something has happened in the last
/// pass, the folder is listed again. So entries that a file system passes over because the folder
/// changed under the listing, and entries that have changed their kind meanwhile, go in a later
/// pass.
class Remover : public TreeVisitor {
 public:
  explicit Remover(const char* keep) : keep_(keep) {}

  void visitFile(int dirFd, const char* name, FileType /*type*/) override {
    if (isKept(name)) return;
    if (unlinkEntry(dirFd, name, 0)) {
      ++events_;
    } else if (errno == EISDIR) {
      ++events_;  // it is a folder by now
    }
  }
  Descend visitFolder(int /*dirFd*/, const char* name) override {
    return isKept(name) ? Descend::no : Descend::yes;
  }
  Descend enteredFolder(const char* /*name*/, int /*fd*/) override {
    eventsBefore_.push_back(events_);
    return Descend::yes;
  }
  void leavingFolder(int /*fd*/) override {
    eventsBeforeLeft_ = eventsBefore_.back();
    eventsBefore_.pop_back();
  }
  Again leftFolder(int dirFd, const char* name) override {
    return removeEmptied(dirFd, name, eventsBeforeLeft_);
  }
  void failed(const char* /*name*/, int error) override {
    if (error == ENOTDIR || error == ELOOP) ++events_;  // it is no folder any more
  }
  void lostFolder(int /*error*/) override { eventsBefore_.pop_back(); }

  /// Removes a folder that has been gone through, `events` having been counted before that.
  Again removeEmptied(int dirFd, const char* name, size_t events) {
    if (unlinkEntry(dirFd, name, AT_REMOVEDIR)) {
      ++events_;
      return Again::no;
    }
    if (errno != ENOTEMPTY && errno != EEXIST) return Again::no;
    return again(events);
  }

  /// Whether another pass over a folder has a point.
  Again again(size_t events) {
    if (events_ == events || repeats_ == kMaxRepeats) return Again::no;
    ++repeats_;
    return Again::yes;
  }

  [[nodiscard]] size_t events() const { return events_; }

 private:
  [[nodiscard]] bool isKept(const char* name) const {
    return keep_ && eventsBefore_.empty() && std::string_view(name) == keep_;
  }

  const char* keep_;
  size_t events_ = 0;  // removals, and entries found to have changed their kind
  size_t repeats_ = 0;
  std::vector<size_t> eventsBefore_;  // for each folder on the way down
  size_t eventsBeforeLeft_ = 0;
};

bool removeFolderAt(int dirFd, const char* name) {
  Remover remover(nullptr);
  TreeWalk walk(remover, platform::ReadUpTo::likelyEnd);
  size_t before = 0;
  do {
    before = remover.events();
    const UniqueFd folder = openFolderAt(dirFd, name);
    if (folder) walk.run(folder.get());
  } while (remover.removeEmptied(dirFd, name, before) == Again::yes);
  return !statusAt(dirFd, name);
}

}  // namespace

void removeContents(int dirFd, const char* keep) {
  Remover remover(keep);
  TreeWalk walk(remover, platform::ReadUpTo::likelyEnd);
  size_t before = 0;
  do {
    before = remover.events();
    walk.run(dirFd);
  } while (remover.again(before) == Again::yes);
}

bool removeEntryAt(int dirFd, const char* name) {
  const std::optional<struct stat> status = statusAt(dirFd, name);
  if (!status) return errno == ENOENT;
  if (S_ISDIR(status->st_mode)) return removeFolderAt(dirFd, name);
  return unlinkEntry(dirFd, name, 0);
}

}  // namespace morvane
