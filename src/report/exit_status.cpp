#include "report/exit_status.h"

#include <cstdlib>

namespace morvane {

void endProcess(ExitStatus status) {
  std::exit(static_cast<int>(status));
}

}  // namespace morvane
