#include "files/tree_walk.h"

#include <sys/stat.h>

#include <utility>

#include "files/open.h"

namespace morvane {

void TreeWalk::run(int rootFd) {
  place_.start(rootFd);
  pending_.clear();
  starts_.assign(1, 0);
  again_ = false;
  list(platform::ReadUpTo::end, platform::FolderPosition::anywhere);
  while (true) {
    if (pending_.size() > starts_.back()) {
      enterNext();
    } else if (starts_.size() > 1) {
      leave();
    } else {
      return;
    }
  }
}

void TreeWalk::list(platform::ReadUpTo upTo, platform::FolderPosition position) {
  const int dirFd = place_.current();
  reader_.start(dirFd, upTo, position);
  while (const platform::DirectoryEntry* entry = reader_.next()) {
    const FileType type = typeOf(*entry);
    if (type != FileType::folder) {
      visitor_.visitFile(dirFd, entry->name, type);
    } else if (visitor_.visitFolder(dirFd, entry->name) == Descend::yes) {
      pending_.append(entry->name).push_back('\0');
    }
  }
  if (reader_.error() != 0) visitor_.failed(nullptr, reader_.error());
}

/// The listing's type, asked for only where the file system does not give it. What cannot be asked
/// for is treated as a file: the attempt to use it then says what is wrong.
FileType TreeWalk::typeOf(const platform::DirectoryEntry& entry) const {
  if (entry.type != FileType::unknown) return entry.type;
  const std::optional<struct stat> status = statusAt(place_.current(), entry.name);
  if (!status || S_ISREG(status->st_mode)) return FileType::regular;
  if (S_ISDIR(status->st_mode)) return FileType::folder;
  return S_ISLNK(status->st_mode) ? FileType::link : FileType::other;
}

void TreeWalk::enterNext() {
  const char* name = lastName();
  const platform::ReadUpTo upTo = std::exchange(again_, false) ? platform::ReadUpTo::end : upTo_;
  if (const int error = place_.enter(name); error != 0) {
    visitor_.failed(name, error);
    dropLastName();
    return;
  }
  if (visitor_.enteredFolder(name, place_.current()) == Descend::no) {
    if (goUp()) dropLastName();
    return;
  }
  starts_.push_back(pending_.size());
  list(upTo, platform::FolderPosition::start);
}

void TreeWalk::leave() {
  visitor_.leavingFolder(place_.current());
  starts_.pop_back();
  if (!goUp()) return;
  again_ = visitor_.leftFolder(place_.current(), lastName()) == Again::yes;
  if (!again_) dropLastName();
}

/// Goes up one level. False when that folder is gone from its place: the walk is then further up,
/// and what was still to be done in the lost folders is gone with them.
bool TreeWalk::goUp() {
  const int error = place_.leave();
  if (place_.depth() + 1 == starts_.size()) return true;
  while (starts_.size() > place_.depth() + 1) {
    visitor_.lostFolder(error);
    pending_.resize(starts_.back());
    starts_.pop_back();
  }
  dropLastName();
  return false;
}

const char* TreeWalk::lastName() const {
  const size_t end = pending_.size() - 1;  // the NUL
  const size_t before = end == 0 ? std::string::npos : pending_.rfind('\0', end - 1);
  return pending_.data() + (before == std::string::npos ? 0 : before + 1);
}

void TreeWalk::dropLastName() {
  pending_.resize(static_cast<size_t>(lastName() - pending_.data()));
}

}  // namespace morvane
