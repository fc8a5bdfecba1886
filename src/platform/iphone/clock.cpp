#include "platform/clock.h"

#include <cerrno>
#include <ctime>

namespace morvane::platform {

void pauseFor(double seconds) {
  constexpr double kNanosecondsPerSecond = 1e9;
  timespec rest = {};
  rest.tv_sec = static_cast<time_t>(seconds);
  rest.tv_nsec =
      static_cast<long>((seconds - static_cast<double>(rest.tv_sec)) * kNanosecondsPerSecond);
  while (nanosleep(&rest, &rest) != 0 && errno == EINTR) {
  }
}

}  // namespace morvane::platform
