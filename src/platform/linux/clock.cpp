#include "platform/clock.h"

#include <cerrno>
#include <ctime>

namespace morvane::platform {

void pauseFor(double seconds) {
  timespec left;
  left.tv_sec = static_cast<time_t>(seconds);
  left.tv_nsec = static_cast<long>((seconds - static_cast<double>(left.tv_sec)) * 1e9);
  while (nanosleep(&left, &left) == -1 && errno == EINTR) {
  }
}

}  // namespace morvane::platform
