#include "backup/store.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstring>

#include "files/open.h"
#include "files/remove_tree.h"
#include "files/write_file.h"
#include "platform/volume.h"

namespace morvane {
namespace {

constexpr mode_t kPrivate = S_IRWXU;
constexpr const char* kStagingPrefix = ".staging_";
constexpr int kPublishAttempts = 16;  // each fails only if another run published meanwhile

/// Takes the lock by which a run holds its staging folder. False where another process has it.
bool lockFolder(int fd) {
  return flock(fd, LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK;
}

std::string joinedByLineFeed(const std::vector<std::string>& texts) {
  std::string result;
  for (const std::string& text : texts) {
    if (!result.empty()) result += '\n';
    result += text;
  }
  return result;
}

}  // namespace

std::string backupFolderName(std::string_view name) {
  return std::string(name) + ".morvane";
}

std::string StoreError::text() const {
  return step + ": " + std::strerror(code);
}

Staging::Staging(const std::string& backupName)
    : stagingName_(kStagingPrefix + backupName + "_" + std::to_string(getpid())),
      finalName_(backupFolderName(backupName)),
      store_(makeFoldersAt(AT_FDCWD, kBackupRoot)) {
  if (!store_) {
    setupError_ = {kBackupRoot, errno};
    return;
  }
  (void)fchmod(store_.get(), kPrivate);  // if it is not ours to change, it is not ours to protect
  makeStaging();
}

/// The name holds our process id, so what is there already was left by a run that is dead, unless
/// someone runs the tool in several process namespaces: the lock tells. Until we had it, the other
/// run could make its staging folder the finished backup, which is not to be emptied.
void Staging::makeStaging() {
  const auto fail = [this](int error) {
    setupError_ = {stagingName_, error};
    folder_.reset();
  };
  const bool existed = existsAt(store_.get(), stagingName_.c_str());
  folder_ = makeFolderAt(store_.get(), stagingName_.c_str(), kPrivate);
  if (!folder_) return fail(errno);
  if (!lockFolder(folder_.get())) return fail(EBUSY);
  if (!isAt(stagingName_)) return fail(EBUSY);
  if (!existed) return;
  removeContents(folder_.get());
  if (!namesIn(folder_.get()).empty()) fail(ENOTEMPTY);  // of two runs' data no backup is made
}

void Staging::discard() {
  if (folder_) (void)removeEntryAt(store_.get(), stagingName_.c_str());
}

std::string Staging::publish(const std::vector<std::string>& bundleIds) {
  if (const StoreError error = prepare(bundleIds)) {
    discard();  // no backup will be made of it, and it takes the room of the next attempt
    return error.text();
  }
  if (const int error = exchangeWithFinal(); error != 0) {
    return StoreError{finalName_, error}.text();
  }
  if (const int error = syncFailure(platform::syncFolder(store_.get())); error != 0) {
    takeBack();
    return StoreError{"sync", error}.text();
  }
  if (!verify()) {
    takeBack();
    return "verify-read-back thất bại";
  }
  // What is under the staging name now, if anything, is the older backup.
  (void)removeEntryAt(store_.get(), stagingName_.c_str());
  return "";
}

/// Completes the staging folder: everything of the new backup is on the medium before anything of
/// the older one is given up.
StoreError Staging::prepare(const std::vector<std::string>& bundleIds) {
  if (setupError_) return setupError_;
  const std::string manifest = joinedByLineFeed(bundleIds);
  if (const int error = writeFileAt(folder_.get(), kManifestName, manifest); error != 0) {
    return {kManifestName, error};
  }
  (void)fchmod(folder_.get(), kPrivate);
  return {"sync", syncFailure(platform::syncVolume(folder_.get()))};
}

/// Puts the staging folder in the final place. Returns errno.
int Staging::exchangeWithFinal() {
  const char* staging = stagingName_.c_str();
  const char* final = finalName_.c_str();
  int error = 0;
  for (int attempt = 0; attempt < kPublishAttempts; ++attempt) {
    if (statusAt(store_.get(), final)) {
      error = platform::swapNamesAt(store_.get(), staging, final);
      exchanged_ = error == 0;
      if (exchanged_) return 0;
      if (error != ENOENT && error != ENOTSUP) return error;
      if (error == ENOTSUP) (void)removeEntryAt(store_.get(), final);
    }
    if (renameat(store_.get(), staging, store_.get(), final) == 0) return 0;
    error = errno;
    if (error != EEXIST && error != ENOTEMPTY) return error;
  }
  return error;
}

/// After a failure that came too late: gives the older backup its place back, unless another run
/// has published since.
void Staging::takeBack() {
  if (!exchanged_ || !isAt(finalName_)) return;
  (void)platform::swapNamesAt(store_.get(), stagingName_.c_str(), finalName_.c_str());
}

/// Whether the finished backup is there: its manifest can be found where it belongs.
bool Staging::verify() const {
  return existsAt(store_.get(), (finalName_ + "/" + kManifestName).c_str());
}

/// Whether `name` is our folder's name at the moment.
bool Staging::isAt(const std::string& name) const {
  struct stat ours;
  const std::optional<struct stat> there = statusAt(store_.get(), name.c_str());
  if (!there || fstat(folder_.get(), &ours) != 0) return false;
  return FolderId(*there) == FolderId(ours);
}

void removeAllBackups() {
  const UniqueFd store = openFolderTrusting(kBackupRoot);
  if (!store) return;
  for (const std::string& name : namesIn(store.get())) {
    // Held while its folder goes, the lock also keeps a run from beginning in it.
    const UniqueFd staging =
        name.starts_with(kStagingPrefix) ? openFolderAt(store.get(), name.c_str()) : UniqueFd();
    const bool inUse = staging && !lockFolder(staging.get());
    if (!inUse) (void)removeEntryAt(store.get(), name.c_str());
  }
}

int syncFailure(int error) {
  const bool unknownCall = error == ENOSYS || error == EINVAL || error == ENOTSUP;
  return unknownCall ? 0 : error;
}

}  // namespace morvane
