#pragma once

namespace morvane::platform {

/// Encloses one whole command: whatever the platform's calls hand out "autoreleased" meanwhile is
/// released at its end. Nothing on platforms without such a notion.
class RunScope {
 public:
  RunScope();
  ~RunScope();
  RunScope(const RunScope&) = delete;
  RunScope& operator=(const RunScope&) = delete;

 private:
  void* pool_ = nullptr;
};

}  // namespace morvane::platform
