#include "reset/system_traces.h"

#include <string_view>
#include <vector>

#include "files/open.h"
#include "files/remove_tree.h"
#include "files/tree_walk.h"
#include "platform/clock.h"
#include "reset/processes.h"
#include "reset/wipe.h"

namespace morvane {
namespace {

const std::string kLibrary = "/var/mobile/Library/";
constexpr double kSettleSeconds = 1.0;

bool wipePerAppEntries(const std::string& bundleId) {
  bool found = false;
  for (const char* folder :
       {"Caches", "HTTPStorages", "WebKit", "SpringBoard/PushStore", "Cookies"}) {
    // Every suffix in every folder: which of them an iOS version uses where is not for us to guess.
    for (const char* suffix : {"", ".binarycookies", ".pushstore"}) {
      found = removeIfExists(kLibrary + folder + "/" + bundleId + suffix) || found;
    }
  }
  return found;
}

/// Collects the paths, relative to the walk's root, of the entries that belong to an app.
class NotificationSearch : public TreeVisitor {
 public:
  explicit NotificationSearch(std::string_view bundleId) : bundleId_(bundleId) {}

  void visitFile(int /*dirFd*/, const char* name, FileType /*type*/) override { note(name); }
  // What lies in a folder that goes needs no search of its own.
  Descend visitFolder(int /*dirFd*/, const char* name) override {
    return note(name) ? Descend::no : Descend::yes;
  }
  Descend enteredFolder(const char* name, int /*fd*/) override {
    folder_.append(name).push_back('/');
    return Descend::yes;
  }
  void leavingFolder(int /*fd*/) override { goUp(); }
  void lostFolder(int /*error*/) override { goUp(); }
  Again leftFolder(int /*dirFd*/, const char* /*name*/) override { return Again::no; }
  void failed(const char* /*name*/, int /*error*/) override {}

  [[nodiscard]] const std::vector<std::string>& matches() const { return matches_; }

 private:
  void goUp() {
    folder_.pop_back();
    folder_.resize(folder_.rfind('/') + 1);  // npos + 1 is 0
  }

  bool note(std::string_view name) {
    const bool match = name.starts_with(bundleId_) &&
                       (name.size() == bundleId_.size() || name[bundleId_.size()] == '.');
    if (match) matches_.push_back(folder_ + std::string(name));
    return match;
  }

  std::string_view bundleId_;
  std::string folder_;  // the way down to the current one, each name with its "/"
  std::vector<std::string> matches_;
};

/// Removes `path` below `root`; the folders on its way are entered as folders only.
bool removeBelow(int root, const std::string& path) {
  DirStack place;
  place.start(root);
  size_t start = 0;
  for (size_t slash = path.find('/'); slash != std::string::npos; slash = path.find('/', start)) {
    if (place.enter(path.substr(start, slash - start).c_str()) != 0) return false;
    start = slash + 1;
  }
  const char* name = path.c_str() + start;
  if (!existsAt(place.current(), name)) return false;
  (void)removeEntryAt(place.current(), name);  // best effort: found is what counts
  return true;
}

bool wipeNotifications(const std::string& bundleId) {
  const UniqueFd root = openFolderTrusting(kLibrary + "BulletinBoard");
  if (!root) return false;
  NotificationSearch search(bundleId);
  TreeWalk(search, platform::ReadUpTo::end).run(root.get());
  bool found = false;
  for (const std::string& path : search.matches()) {
    found = removeBelow(root.get(), path) || found;
  }
  return found;
}

bool wipeSafari() {
  killProcessesNamed("SafariViewService");
  killProcessesNamed("MobileSafari");
  platform::pauseFor(kSettleSeconds);
  bool found = false;
  const UniqueFd folder = openFolderTrusting(kLibrary + "Safari");
  for (const std::string& name : folder ? namesIn(folder.get()) : std::vector<std::string>()) {
    if (name.find(".db") == std::string::npos) continue;
    if (existsAt(folder.get(), name.c_str())) (void)removeEntryAt(folder.get(), name.c_str());
    found = true;  // a database that was listed counts, whatever became of it
  }
  found = removeIfExists(kLibrary + "Cookies/Cookies.binarycookies") || found;
  wipeDirContents(kLibrary + "WebKit/WebsiteData");
  return found;
}

}  // namespace

bool wipeSystemTraces(const std::string& bundleId) {
  bool found = wipePerAppEntries(bundleId);
  found = wipeNotifications(bundleId) || found;
  if (bundleId == kSafariBundleId) found = wipeSafari() || found;
  return found;
}

}  // namespace morvane
