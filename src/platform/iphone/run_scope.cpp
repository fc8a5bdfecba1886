#include "platform/run_scope.h"

#include "platform/iphone/frameworks.h"

namespace morvane::platform {

RunScope::RunScope() : pool_(objc_autoreleasePoolPush()) {}

RunScope::~RunScope() {
  objc_autoreleasePoolPop(pool_);
}

}  // namespace morvane::platform
