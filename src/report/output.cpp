#include "report/output.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "report/progress.h"

namespace morvane {

void prepareStreams() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    // open(2) gives the lowest free number, which is `fd`: the ones below were seen to be taken.
    if (fcntl(fd, F_GETFD) == -1 && errno == EBADF) (void)open("/dev/null", O_RDWR | O_NOCTTY);
  }
  // Writing then fails like any other, and the run comes to its own end.
  for (const int signal : {SIGPIPE, SIGXFSZ})
    (void)std::signal(signal, SIG_IGN);
}

void writeOut(Stream stream, std::string_view text) {
  progress::erase();  // both streams may be the same terminal
  const int fd = stream == Stream::standardOutput ? STDOUT_FILENO : STDERR_FILENO;
  while (!text.empty()) {
    const ssize_t written = write(fd, text.data(), text.size());
    if (written > 0) {
      text.remove_prefix(static_cast<size_t>(written));
    } else if (written == -1 && errno == EAGAIN) {
      // The caller gave us a non-blocking pipe and is slow to read it: the line must not be cut.
      pollfd waiter{fd, POLLOUT, 0};
      if (poll(&waiter, 1, -1) == -1 && errno != EINTR) return;
    } else if (written == 0 || errno != EINTR) {
      return;
    }
  }
}

}  // namespace morvane
