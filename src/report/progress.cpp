#include "report/progress.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <string>

#include "text/terminal_text.h"

namespace morvane::progress {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr std::size_t kPaintsPerSecond = 10;
constexpr milliseconds kSpacing(1000 / kPaintsPerSecond);
constexpr milliseconds kRateFrom(500);  // before that a rate would be noise
constexpr std::uint64_t kLargeFile = std::uint64_t{32} << 20U;
constexpr std::size_t kUsualColumns = 80;
constexpr std::string_view kEraseLine = "\r\x1b[K";  // EL (ECMA-48)

// Whether the line is on the terminal now; for the signal handler too.
volatile std::sig_atomic_t visible = 0;

/// A background process that wrote to the terminal would disturb whoever has it, or be stopped for
/// it. The answer changes as the user moves us.
bool terminalIsOurs() {
  const pid_t foreground = tcgetpgrp(STDERR_FILENO);
  return foreground != -1 && foreground == getpgrp();
}

/// Best effort: a line that does not get through is not worth waiting for.
void put(std::string_view text) {
  (void)!write(STDERR_FILENO, text.data(), text.size());
}

extern "C" void eraseAndDie(int signalNumber) {
  erase();
  (void)std::raise(signalNumber);  // blocked until we return; then its default action
}

/// A user who interrupts us gets the prompt on a clean line. Signals that someone has chosen to
/// ignore stay ignored.
void eraseOnDeadlySignals() {
  for (const int signalNumber : {SIGHUP, SIGINT, SIGTERM}) {
    struct sigaction action {};
    if (sigaction(signalNumber, nullptr, &action) != 0 || action.sa_handler != SIG_DFL) continue;
    action.sa_handler = eraseAndDie;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    (void)sigaction(signalNumber, &action, nullptr);
  }
}

std::string sizeText(double bytes) {
  constexpr std::array<const char*, 5> kUnits = {"B", "kB", "MB", "GB", "TB"};
  std::size_t unit = 0;
  while (bytes >= 999.95 && unit + 1 < kUnits.size()) {
    bytes /= 1000;
    ++unit;
  }
  std::array<char, 32> text{};
  (void)std::snprintf(text.data(), text.size(), unit == 0 ? "%.0f %s" : "%.1f %s", bytes,
                      kUnits.at(unit));
  return text.data();
}

/// How soon a change has to be seen.
enum class Urgency { next, now };

class Line {
 public:
  Line() : watched_(isatty(STDERR_FILENO) == 1) {
    paints_.fill(Clock::now() - std::chrono::hours(1));
    if (watched_) eraseOnDeadlySignals();
  }

  [[nodiscard]] bool watched() const { return watched_; }

  void startStep(std::string_view what, std::string_view object) {
    step_.assign(what).append(" ").append(object);
    start_ = Clock::now();
    name_.clear();
    files_ = bytes_ = 0;
    paintIfDue(Urgency::now);
  }

  void startFile(std::string_view name, std::uint64_t bytes) {
    name_ = name;
    // Nothing will move while a large file is copied, so it is named before.
    paintIfDue(bytes >= kLargeFile ? Urgency::now : Urgency::next);
  }

  void finishFile(std::uint64_t bytes) {
    ++files_;
    bytes_ += bytes;
  }

 private:
  void paintIfDue(Urgency urgency) {
    const Clock::time_point now = Clock::now();
    const Clock::time_point tenthLast = paints_.at(nextPaint_);
    const Clock::time_point last = paints_.at((nextPaint_ + kPaintsPerSecond - 1) % paints_.size());
    if (now - tenthLast < std::chrono::seconds(1)) return;
    if (urgency == Urgency::next && now - last < kSpacing) return;
    // Remembered even if nothing comes of it: the questions asked below are system calls.
    paints_.at(nextPaint_) = now;
    nextPaint_ = (nextPaint_ + 1) % paints_.size();
    if (!terminalIsOurs() || !takesText()) return;
    const winsize size = windowSize();
    const std::size_t columns = size.ws_col > 0 ? size.ws_col : kUsualColumns;
    visible = 1;
    // The last column stays free: a cursor beyond it would move the line up.
    put(std::string(kEraseLine) + terminalText(text(now), columns - 1));
  }

  /// Not while the user has stopped the output (Ctrl-S).
  static bool takesText() {
    pollfd terminal{STDERR_FILENO, POLLOUT, 0};
    return poll(&terminal, 1, 0) == 1 && (terminal.revents & POLLOUT) != 0;
  }

  static winsize windowSize() {
    winsize size{};
    if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0) size.ws_col = 0;
    return size;
  }

  [[nodiscard]] std::string text(Clock::time_point now) const {
    std::string result = step_;
    if (files_ > 0) {
      result += ": " + std::to_string(files_) + (files_ == 1 ? " file, " : " files, ");
      result += sizeText(static_cast<double>(bytes_));
      const std::chrono::duration<double> elapsed = now - start_;
      if (elapsed >= kRateFrom) {
        result += ", " + sizeText(static_cast<double>(bytes_) / elapsed.count()) + "/s";
      }
    }
    if (!name_.empty()) result += "  " + name_;
    return result;
  }

  bool watched_;
  std::string step_;
  std::string name_;
  std::uint64_t files_ = 0;
  std::uint64_t bytes_ = 0;
  Clock::time_point start_;
  std::array<Clock::time_point, kPaintsPerSecond> paints_;  // the last ones, in a ring
  std::size_t nextPaint_ = 0;
};

Line& line() {
  static Line theLine;
  return theLine;
}

}  // namespace

bool isWatched() {
  return line().watched();
}

void startStep(std::string_view what, std::string_view object) {
  if (isWatched()) line().startStep(what, object);
}

void startFile(std::string_view name, std::uint64_t bytes) {
  if (isWatched()) line().startFile(name, bytes);
}

void finishFile(std::uint64_t bytes) {
  if (isWatched()) line().finishFile(bytes);
}

/// Called from a signal handler too.
void erase() {
  if (visible == 0) return;
  const int error = errno;
  visible = 0;
  if (terminalIsOurs()) put(kEraseLine);
  errno = error;
}

}  // namespace morvane::progress
