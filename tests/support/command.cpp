#include "support/command.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <filesystem>

#include "support/case.h"
#include "support/tree.h"
#include "text/pieces.h"

namespace morvane::test {

const char* const kCli = MORVANE_CLI;
const char* const kPhone = MORVANE_PHONE;

namespace {

/// What a command writes one of its streams to: a file in memory, or something that takes nothing.
int openStream(Ends ends) {
  if (ends == Ends::open) return ::memfd_create("output", MFD_CLOEXEC);
  std::array<int, 2> pipe{};
  if (::pipe2(pipe.data(), O_CLOEXEC) != 0) abort();
  ::close(pipe[0]);
  return pipe[1];
}

std::string closeStream(int fd) {
  const std::string path = "/proc/self/fd/" + std::to_string(fd);
  const bool took = std::filesystem::is_regular_file(path);
  const std::string text = took ? contentOf(path) : "";
  ::close(fd);
  return text;
}

}  // namespace

std::ostream& operator<<(std::ostream& stream, const Outcome& outcome) {
  return stream << "status " << outcome.status << "\n--- out\n"
                << outcome.out << "--- err\n"
                << outcome.err << "---";
}

void execute(const std::vector<std::string>& words) {
  std::vector<char*> arguments;
  for (const std::string& word : words)
    arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  ::execvp(arguments[0], arguments.data());
  ::_exit(127);
}

Outcome collect(const Body& body, const RunOptions& options) {
  const int out = openStream(options.out);
  const int err = openStream(options.err);
  const auto prepare = [&] {
    ::dup2(::open("/dev/null", O_RDONLY | O_CLOEXEC), 0);
    options.out == Ends::closed ? ::close(1) : ::dup2(out, 1);
    options.err == Ends::closed ? ::close(2) : ::dup2(err, 2);
    if (options.inChild) options.inChild();
  };
  const int status = runInChild(body, options.atCall, prepare);
  return {status, closeStream(out), closeStream(err)};
}

Outcome runCommand(const std::vector<std::string>& words, const RunOptions& options) {
  return collect([&] { execute(words); }, options);
}

Outcome cli(std::vector<std::string> arguments, const RunOptions& options) {
  arguments.insert(arguments.begin(), kCli);
  return runCommand(arguments, options);
}

Outcome cliLine(std::string_view line, char separator, const RunOptions& options) {
  std::vector<std::string> words;
  for (const std::string_view word : splitAt(line, separator))
    words.emplace_back(word);
  return cli(words, options);
}

pid_t startBystander(const std::string& name) {
  // A copy of `sleep` under the name, so that the kernel and /proc both know the process by it.
  const std::string program = caseFolder() + "/" + name;
  if (!exists(program)) std::filesystem::copy_file("/bin/sleep", program);
  const pid_t pid = ::fork();
  if (pid == 0) execute({program, "600"});
  // Until the exec has happened the process carries this program's name.
  while (contentOf("/proc/" + std::to_string(pid) + "/comm") != name.substr(0, 15) + "\n")
    ::usleep(500);
  return pid;
}

bool endBystander(pid_t pid) {
  ::kill(pid, SIGTERM);  // of two signals, the first decides how it ended
  int status = 0;
  ::waitpid(pid, &status, 0);
  return WTERMSIG(status) == SIGTERM;
}

}  // namespace morvane::test
