#include "support/command.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <thread>
#include <utility>

#include "support/case.h"
#include "text/pieces.h"

namespace morvane::test {
namespace {

using Clock = std::chrono::steady_clock;

int statusFrom(int waitStatus) {
  return WIFEXITED(waitStatus) ? WEXITSTATUS(waitStatus) : 128 + WTERMSIG(waitStatus);
}

std::vector<char*> argumentVector(const std::vector<std::string>& words) {
  std::vector<char*> result;
  for (const std::string& word : words)
    result.push_back(const_cast<char*>(word.c_str()));
  result.push_back(nullptr);
  return result;
}

/// One of the command's output streams, seen from outside.
struct Drain {
  std::array<int, 2> pipe{-1, -1};
  std::string* text = nullptr;

  void prepare(Ends ends, std::string& into) {
    text = &into;
    if (::pipe2(pipe.data(), O_CLOEXEC) != 0) abort();
    if (ends == Ends::brokenPipe) closeEnd(0);
  }
  void closeEnd(size_t end) {
    if (pipe.at(end) != -1) ::close(std::exchange(pipe.at(end), -1));
  }
  void read() {
    std::array<char, 65536> buffer{};
    const ssize_t got = ::read(pipe[0], buffer.data(), buffer.size());
    if (got > 0) text->append(buffer.data(), static_cast<size_t>(got));
    if (got <= 0) closeEnd(0);
  }
};

void becomeCommand(const std::vector<std::string>& words, const RunOptions& options, int out,
                   int err) {
  const int nothing = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  ::dup2(nothing, 0);
  ::dup2(out, 1);
  ::dup2(err, 2);
  if (options.out == Ends::closed) ::close(1);
  if (options.err == Ends::closed) ::close(2);
  if (options.inChild) options.inChild();
  ::execvp(words[0].c_str(), argumentVector(words).data());
  ::_exit(127);
}

}  // namespace

std::ostream& operator<<(std::ostream& stream, const Outcome& outcome) {
  return stream << "status " << outcome.status << "\n--- out\n"
                << outcome.out << "--- err\n"
                << outcome.err << "---";
}

Outcome runCommand(const std::vector<std::string>& words, const RunOptions& options) {
  Outcome outcome;
  std::array<Drain, 2> drains;
  drains[0].prepare(options.out, outcome.out);
  drains[1].prepare(options.err, outcome.err);
  const pid_t pid = ::fork();
  if (pid == 0) becomeCommand(words, options, drains[0].pipe[1], drains[1].pipe[1]);
  for (Drain& drain : drains)
    drain.closeEnd(1);

  const auto deadline = Clock::now() + std::chrono::seconds(options.timeoutSeconds);
  while (drains[0].pipe[0] != -1 || drains[1].pipe[0] != -1) {
    std::array<pollfd, 2> ends{pollfd{drains[0].pipe[0], POLLIN, 0},
                               pollfd{drains[1].pipe[0], POLLIN, 0}};
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0 || ::poll(ends.data(), 2, static_cast<int>(left.count())) == 0) {
      ::kill(pid, SIGKILL);
      ADD_FAILURE() << "did not end in " << options.timeoutSeconds << " s: " << words[0];
      break;
    }
    for (size_t i = 0; i < 2; ++i) {
      if (ends.at(i).revents != 0) drains.at(i).read();
    }
  }
  int waitStatus = 0;
  ::waitpid(pid, &waitStatus, 0);
  for (Drain& drain : drains)
    drain.closeEnd(0);
  outcome.status = statusFrom(waitStatus);
  return outcome;
}

Outcome cli(std::vector<std::string> arguments, const RunOptions& options) {
  arguments.insert(arguments.begin(), MORVANE_CLI);
  return runCommand(arguments, options);
}

Outcome cliLine(std::string_view line, char separator) {
  std::vector<std::string> words;
  for (const std::string_view word : splitAt(line, separator))
    words.emplace_back(word);
  return cli(words);
}

Bystander::Bystander(const std::string& name) {
  // A copy of `sleep` under the name, so that the kernel and /proc both know the process by it.
  const std::string program = caseFolder() + "/" + name;
  if (!std::filesystem::exists(program)) std::filesystem::copy_file("/bin/sleep", program);
  pid_ = ::fork();
  if (pid_ == 0) {
    ::execl(program.c_str(), program.c_str(), "600", nullptr);
    ::_exit(127);
  }
  // Until the exec has happened the process carries this program's name.
  std::error_code ignored;
  while (std::filesystem::read_symlink("/proc/" + std::to_string(pid_) + "/exe", ignored) !=
         program) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

Bystander::Bystander(Bystander&& other) noexcept : pid_(std::exchange(other.pid_, -1)) {}

Bystander::~Bystander() {
  if (pid_ == -1) return;
  ::kill(pid_, SIGKILL);
  ::waitpid(pid_, nullptr, 0);
}

bool Bystander::alive() const {
  // SIGKILL is delivered at the next return to user mode, so a killed process may need a moment.
  for (int i = 0; i < 20; ++i) {
    siginfo_t info{};
    ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT);
    if (info.si_pid == pid_) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

}  // namespace morvane::test
