#include "platform/run_scope.h"

namespace morvane::platform {

RunScope::RunScope() = default;
RunScope::~RunScope() {
  pool_ = nullptr;
}

}  // namespace morvane::platform
