#include "files/dir_stack.h"

#include <sys/stat.h>

#include "files/open.h"

namespace morvane {
namespace {

// Two stacks at a time (a copy's two sides), and a process on the phone may start with few.
constexpr size_t kOpenLevels = 16;

}  // namespace

void DirStack::start(int rootFd) {
  levels_.clear();
  names_.clear();
  levels_.emplace_back().borrowed = rootFd;
}

int DirStack::enter(const char* name) {
  UniqueFd folder = openFolderAt(current(), name);
  if (!folder) return errno;
  Level& level = levels_.emplace_back();
  level.fd = std::move(folder);
  level.nameStart = names_.size();
  names_.append(name).push_back('\0');
  closeFarLevel();
  return 0;
}

/// Gives up the descriptor that has been out of use for longest, once there are too many.
void DirStack::closeFarLevel() {
  if (depth() <= kOpenLevels) return;
  Level& far = levels_[depth() - kOpenLevels];
  struct stat status;
  if (!far.fd || fstat(far.fd.get(), &status) != 0) return;
  far.device = status.st_dev;
  far.inode = status.st_ino;
  far.fd.reset();
}

int DirStack::leave() {
  const UniqueFd left = std::move(levels_.back().fd);
  names_.resize(levels_.back().nameStart);
  levels_.pop_back();
  if (levels_.back().get() != -1) return 0;
  const size_t parent = depth();
  if (reopen(parent, openFolderAt(left.get(), "..")) == 0) return 0;
  return descendAgain(parent);
}

int DirStack::reopen(size_t index, UniqueFd candidate) {
  struct stat status;
  Level& level = levels_[index];
  if (!candidate || fstat(candidate.get(), &status) != 0) return errno;
  if (status.st_dev != level.device || status.st_ino != level.inode) return ESTALE;
  level.fd = std::move(candidate);
  return 0;
}

/// The folder we came from has been moved elsewhere, so its ".." is of no use: goes down by the
/// names from the deepest level above that is still open, as far as these lead to the same folders.
int DirStack::descendAgain(size_t goal) {
  size_t start = goal;
  while (levels_[start].get() == -1)
    --start;
  size_t reached = start;
  int error = 0;
  while (reached < goal) {
    const Level& next = levels_[reached + 1];
    UniqueFd candidate = openFolderAt(levels_[reached].get(), names_.c_str() + next.nameStart);
    error = reopen(reached + 1, std::move(candidate));
    if (error != 0) break;
    ++reached;
    if (reached - 1 > start) levels_[reached - 1].fd.reset();  // closed before, as it was found
  }
  names_.resize(reached == goal ? names_.size() : levels_[reached + 1].nameStart);
  levels_.resize(reached + 1);
  return error;
}

}  // namespace morvane
