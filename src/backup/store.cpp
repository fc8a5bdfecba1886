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
constexpr int kPublishAttempts = 16;  // each fails only if another run published meanwhile

std::string joinedByLineFeed(const std::vector<std::string>& texts) {
  std::string result;
  for (const std::string& text : texts) {
    if (!result.empty()) result += '\n';
    result += text;
  }
  return result;
}

/// What a sync says of the medium. That a file system has no such call is no failure of the data.
int mediumErrorOf(int error) {
  return error == EIO || error == ENOSPC || error == EDQUOT ? error : 0;
}

}  // namespace

std::string backupFolderName(std::string_view name) {
  return std::string(name) + ".morvane";
}

std::string StoreError::text() const {
  return step + ": " + std::strerror(code);
}

Staging::Staging(const std::string& backupName)
    : stagingName_(".staging_" + backupName + "_" + std::to_string(getpid())),
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
/// someone runs the tool in several process namespaces: the lock tells.
void Staging::makeStaging() {
  const bool existed = existsAt(store_.get(), stagingName_.c_str());
  folder_ = makeFolderAt(store_.get(), stagingName_.c_str(), kPrivate);
  if (folder_ && flock(folder_.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
    setupError_ = {stagingName_, EBUSY};
    folder_.reset();
  } else if (!folder_) {
    setupError_ = {stagingName_, errno};
  } else if (existed) {
    removeContents(folder_.get());
  }
}

void Staging::discard() {
  if (folder_) (void)removeEntryAt(store_.get(), stagingName_.c_str());
}

StoreError Staging::publish(const std::vector<std::string>& bundleIds) {
  if (setupError_) return setupError_;
  const std::string manifest = joinedByLineFeed(bundleIds);
  if (const int error = writeFileAt(folder_.get(), kManifestName, manifest); error != 0) {
    return {kManifestName, error};
  }
  // Everything of the new backup is on the medium before anything of the old one is given up.
  if (const int error = mediumErrorOf(platform::syncVolume(folder_.get())); error != 0) {
    return {"sync", error};
  }
  (void)fchmod(folder_.get(), kPrivate);
  if (const int error = exchangeWithFinal(); error != 0) return {finalName_, error};
  (void)fchmod(folder_.get(), kPrivate);
  if (const int error = mediumErrorOf(platform::syncFolder(store_.get())); error != 0) {
    return {"sync", error};
  }
  // What is under the staging name now, if anything, is the older backup.
  if (verify()) (void)removeEntryAt(store_.get(), stagingName_.c_str());
  return {};
}

/// Puts the staging folder in the final place. Returns errno.
int Staging::exchangeWithFinal() {
  const char* staging = stagingName_.c_str();
  const char* final = finalName_.c_str();
  int error = 0;
  for (int attempt = 0; attempt < kPublishAttempts; ++attempt) {
    if (statusAt(store_.get(), final)) {
      error = platform::swapNamesAt(store_.get(), staging, final);
      if (error == 0) return 0;
      if (error != ENOENT && error != ENOTSUP) return error;
      if (error == ENOTSUP) (void)removeEntryAt(store_.get(), final);
    }
    if (renameat(store_.get(), staging, store_.get(), final) == 0) return 0;
    error = errno;
    if (error != EEXIST && error != ENOTEMPTY) return error;
  }
  return error;
}

bool Staging::verify() const {
  const UniqueFd final = openFolderAt(store_.get(), finalName_.c_str());
  return final && existsAt(final.get(), kManifestName);
}

}  // namespace morvane
