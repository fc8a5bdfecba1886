#include "backup/copy_progress.h"

#include "report/progress.h"

namespace morvane {
namespace {

class CopyProgress : public CopyObserver {
 public:
  void copying(const char* name, std::uint64_t bytes) override { progress::startFile(name, bytes); }
  void copied(const char* /*name*/, std::uint64_t bytes) override { progress::finishFile(bytes); }
};

}  // namespace

CopyObserver* copyProgress() {
  static CopyProgress progress;
  return progress::isWatched() ? &progress : nullptr;
}

}  // namespace morvane
