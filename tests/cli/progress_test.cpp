// What a person at a terminal would lose: a garbled screen, a log broken by updates, a prompt that
// belongs to someone else, or a terminal that an app's file names take over.

#include <gtest/gtest.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <regex>

#include "support/case.h"
#include "support/command.h"
#include "support/tree.h"
#include "text/terminal_text.h"

namespace morvane::test {
namespace {

const std::string kErase = "\r\x1b[K";

/// What came to the terminal: all of it, what stays, and each state of the transient line.
struct Seen {
  int waitStatus = -1;
  std::string bytes;
  std::string kept;
  std::vector<std::string> lines;
};

/// Runs a shell command, in which $0 is the tool, at a terminal of its own. `typed` comes from its
/// keyboard as soon as there is a line to be taken away.
Seen runAtTerminal(const std::string& command, std::string_view typed = "") {
  Seen seen;
  int terminal = -1;
  const pid_t pid = ::forkpty(&terminal, nullptr, nullptr, nullptr);
  if (pid == 0) execute({"sh", "-c", command, kCli});
  std::array<char, 65536> buffer{};
  for (ssize_t got = 0; (got = ::read(terminal, buffer.data(), buffer.size())) > 0;) {
    seen.bytes.append(buffer.data(), static_cast<size_t>(got));
    if (seen.bytes.find(kErase) == std::string::npos) continue;
    EXPECT_NE(::write(terminal, typed.data(), typed.size()), -1);
    typed = "";
  }
  ::waitpid(pid, &seen.waitStatus, 0);
  ::close(terminal);
  // A state stands between two erasures; what else there is stays.
  const std::regex state("\r\x1b\\[K(?:([^\r]+)(?=\r\x1b\\[K))?");
  for (std::sregex_iterator at(seen.bytes.begin(), seen.bytes.end(), state), end; at != end; ++at) {
    if (at->length(1) > 0) seen.lines.push_back(at->str(1));
  }
  seen.kept = std::regex_replace(seen.bytes, state, "");
  std::erase(seen.kept, '\r');
  return seen;
}

/// A file that is named as soon as its copy begins.
void putLargeFile(const std::string& path) {
  put(path, "");
  std::filesystem::resize_file(path, 40U << 20U);
}

class APersonAtATerminal : public Case {};

TEST_F(APersonAtATerminal, SeesWhatIsDoneAndAnIntactLog) {
  const std::string container = putApp("app", "com.a");
  putApp("other", "com.b");
  for (int i = 0; i < 400; ++i)
    put(container + "/Documents/" + std::to_string(i % 20) + "/" + std::to_string(i), "12345");
  putLargeFile(container + "/Documents/film");
  const std::pair<std::string, const char*> commands[] = {
      {"backup com.a,com.none,com.b daily", "backing up com.a"},
      {"backup com.a daily nothing-has-this-name", "  film"},
      {"restore daily.morvane", "restoring com.a"},
      {"reset com.a clear", "emptying the containers of com.a"},
      {"removebackup ALL", "removing ALL"}};
  for (const auto& [command, words] : commands) {
    const auto start = std::chrono::steady_clock::now();
    const Seen seen = runAtTerminal("exec $0 " + command);
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_TRUE(seen.waitStatus == 0 && seen.bytes.ends_with("\r\n")) << seen.bytes;
    EXPECT_NE(seen.bytes.find(words), std::string::npos) << seen.bytes;
    const Outcome toPrograms = cliLine(command);
    EXPECT_EQ(seen.kept, toPrograms.err + toPrograms.out);
    EXPECT_LE(static_cast<double>(seen.lines.size()), 10 * (elapsed.count() + 1) + 5);
  }
}

TEST_F(APersonAtATerminal, IsNotAtTheMercyOfFileNamesOrOfANarrowWindow) {
  // Clears the screen, sets the title, turns the text round, is wide, is no UTF-8.
  const std::string hostile = "\x1b[2J\x1b]0;x\a\r\n\u202e\u009bm\U0001F600\u6f22\xff\xc3";
  const std::string shown =
      "  \\x1b[2J\\x1b]0;x\\x07\\x0d\\x0a\\xe2\\x80\\xae\\xc2\\x9bm\U0001F600\u6f22\\xff\\xc3";
  const std::string container = putApp("app", "com.a");
  putLargeFile(container + "/Documents/" + hostile);
  putLargeFile(container + "/Documents/" + std::string(250, 'w'));
  for (const size_t columns : {200U, 25U, 2U, 1U}) {
    const Seen seen =
        runAtTerminal("stty cols " + std::to_string(columns) + "; exec $0 backup com.a daily");
    EXPECT_EQ(seen.lines.empty(), columns == 1);  // no room without moving to the next row
    for (const std::string& line : seen.lines)
      EXPECT_EQ(line, terminalText(line, columns - 1)) << columns;
    EXPECT_EQ(seen.bytes.find(shown) != std::string::npos, columns == 200) << seen.bytes;
  }
}

TEST_F(APersonAtATerminal, KeepsItsPromptWhoeverHasItAndWhenTheRunIsInterrupted) {
  putLargeFile(putApp("app", "com.a") + "/Documents/film");
  EXPECT_EQ(runAtTerminal("set -m; $0 backup com.a daily & wait").bytes,
            "[morvane_cli] container backed up: com.a\r\nBACKUP_OK daily.morvane\r\n");
  const Seen seen = runAtTerminal("exec $0 reset com.a kill", "\x03");
  EXPECT_TRUE(WIFSIGNALED(seen.waitStatus) && WTERMSIG(seen.waitStatus) == SIGINT);
  EXPECT_TRUE(seen.bytes.ends_with(kErase)) << seen.bytes;
  EXPECT_EQ(seen.lines, std::vector<std::string>{"stopping com.a^C"});
}

}  // namespace
}  // namespace morvane::test
