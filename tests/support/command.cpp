#include "support/command.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "support/case.h"
#include "support/tree.h"
#include "text/pieces.h"

namespace morvane::test {

const char* const kCli = MORVANE_CLI;
const char* const kPhone = MORVANE_PHONE;

namespace {

/// What was written to a file in memory, which goes.
std::string take(int fd) {
  const std::string text = contentOf("/proc/self/fd/" + std::to_string(fd));
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

Outcome collect(const Body& body, const AtCall& atCall) {
  const int out = ::memfd_create("out", MFD_CLOEXEC);
  const int err = ::memfd_create("err", MFD_CLOEXEC);
  const auto connect = [&] {
    ::dup2(::open("/dev/null", O_RDONLY | O_CLOEXEC), 0);
    ::dup2(out, 1);
    ::dup2(err, 2);
  };
  const int status = runInChild(body, atCall, connect);
  return {status, take(out), take(err)};
}

Outcome runCommand(const std::vector<std::string>& words, const AtCall& atCall) {
  return collect([&] { execute(words); }, atCall);
}

Outcome shell(const std::string& script) {
  return runCommand({"bash", "-c", script, kCli});
}

Outcome cli(std::vector<std::string> arguments, const AtCall& atCall) {
  arguments.insert(arguments.begin(), kCli);
  return runCommand(arguments, atCall);
}

Outcome cliLine(std::string_view line, char separator, const AtCall& atCall) {
  std::vector<std::string> words;
  for (const std::string_view word : splitAt(line, separator))
    words.emplace_back(word);
  return cli(words, atCall);
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
