// What a person at a terminal would lose: a garbled screen, a log broken by updates, a prompt that
// belongs to someone else, or a terminal that an app's file names take over.

#include <gtest/gtest.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <functional>

#include "support/case.h"
#include "support/command.h"
#include "support/tree.h"
#include "text/terminal_text.h"

namespace morvane::test {
namespace {

constexpr std::string_view kErase = "\r\x1b[K";

struct Session {
  unsigned short columns = 80;
  std::string typed = {};              // as soon as there is a line to be taken away
  std::function<void()> inChild = {};  // before the tool begins
};

/// What came to the terminal: what stays on it, and each state of the transient line.
struct Seen {
  int waitStatus = -1;
  std::string bytes;
  std::string kept;
  std::vector<std::string> lines;
  std::chrono::duration<double> elapsed{};
};

[[noreturn]] void becomeTool(const std::vector<std::string>& arguments, const Session& session) {
  if (session.inChild) session.inChild();
  std::vector<const char*> words{MORVANE_CLI};
  for (const std::string& argument : arguments)
    words.push_back(argument.c_str());
  words.push_back(nullptr);
  ::execv(words[0], const_cast<char* const*>(words.data()));
  ::_exit(127);
}

/// Between two erasures there is either a state of the line or whole lines that stay.
void sortOut(Seen& seen) {
  std::string_view rest = seen.bytes;
  for (bool first = true; !rest.empty() || first; first = false) {
    const std::string_view segment = rest.substr(0, rest.find(kErase));
    const bool stays = first || segment.ends_with("\r\n");
    if (stays) seen.kept += segment;
    if (!stays && !segment.empty()) seen.lines.emplace_back(segment);
    rest.remove_prefix(std::min(segment.size() + kErase.size(), rest.size()));
  }
}

Seen runAtTerminal(const std::vector<std::string>& arguments, const Session& session = {}) {
  Seen seen;
  const auto start = std::chrono::steady_clock::now();
  const winsize size{24, session.columns, 0, 0};
  int terminal = -1;
  const pid_t pid = ::forkpty(&terminal, nullptr, nullptr, &size);
  if (pid == 0) becomeTool(arguments, session);
  bool typed = session.typed.empty();
  std::array<char, 65536> buffer{};
  for (ssize_t got = 0; (got = ::read(terminal, buffer.data(), buffer.size())) > 0;) {
    seen.bytes.append(buffer.data(), static_cast<size_t>(got));
    if (typed || seen.bytes.find(kErase) == std::string::npos) continue;
    typed = ::write(terminal, session.typed.data(), session.typed.size()) > 0;
  }
  ::waitpid(pid, &seen.waitStatus, 0);
  ::close(terminal);
  seen.elapsed = std::chrono::steady_clock::now() - start;
  sortOut(seen);
  return seen;
}

/// What the same command says to programs, as a terminal shows it.
std::string saidToPrograms(const std::vector<std::string>& arguments) {
  const Outcome outcome = cli(arguments);
  std::string result;
  for (const char c : outcome.err + outcome.out)
    result += c == '\n' ? "\r\n" : std::string(1, c);
  return result;
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
  const std::pair<std::vector<std::string>, const char*> commands[] = {
      {{"backup", "com.a,com.none,com.b", "daily"}, "backing up com.a"},
      {{"backup", "com.a", "daily", "nothing-has-this-name"}, "  film"},
      {{"restore", "daily.morvane"}, "restoring com.a"},
      {{"reset", "com.a", "clear", "receipt=1"}, "emptying the containers of com.a"},
      {{"removebackup", "ALL"}, "removing ALL"},
  };
  for (const auto& [command, words] : commands) {
    const Seen seen = runAtTerminal(command);
    EXPECT_EQ(seen.waitStatus, 0);
    EXPECT_TRUE(seen.bytes.ends_with("\r\n")) << seen.bytes;
    EXPECT_NE(seen.bytes.find(words), std::string::npos) << seen.bytes;
    EXPECT_EQ(seen.kept, saidToPrograms(command));
    EXPECT_LE(static_cast<double>(seen.lines.size()), 10 * (seen.elapsed.count() + 1) + 5);
  }
}

TEST_F(APersonAtATerminal, IsNotAtTheMercyOfFileNamesOrOfANarrowWindow) {
  // Clears the screen, sets the title, turns the text round, is wide, is no UTF-8.
  const std::string hostile =
      "\x1b[2J\x1b]0;owned\a\r\n\xE2\x80\xAE\xC2\x9B"
      "31m\xF0\x9F\x98\x80\xE6\xBC\xA2\xFF\xC3";
  const std::string container = putApp("app", "com.a");
  putLargeFile(container + "/Documents/" + hostile);
  putLargeFile(container + "/Documents/" + std::string(250, 'w'));
  for (const auto columns : std::initializer_list<unsigned short>{200, 80, 25, 2, 1}) {
    const Seen seen = runAtTerminal({"backup", "com.a", "daily"}, {.columns = columns});
    ASSERT_FALSE(seen.bytes.empty());
    EXPECT_EQ(seen.lines.empty(), columns == 1);  // no room without moving to the next row
    for (const std::string& line : seen.lines) {
      EXPECT_EQ(line, terminalText(line, columns - 1U)) << columns;
    }
    const bool hasRoom = seen.bytes.find(R"(  \x1b[2J\x1b]0;owned\x07\x0d\x0a\xe2\x80\xae\xc2\x9b)"
                                         "31m\xF0\x9F\x98\x80\xE6\xBC\xA2"
                                         R"(\xff\xc3)") != std::string::npos;
    EXPECT_EQ(hasRoom, columns == 200) << seen.bytes;
  }
}

TEST_F(APersonAtATerminal, WhoGaveItToSomeoneElseIsNotDisturbed) {
  putLargeFile(putApp("app", "com.a") + "/Documents/film");
  const std::vector<std::string> arguments = {"backup", "com.a", "daily"};
  const auto goToBackground = [] {
    if (const pid_t job = ::fork(); job > 0) ::_exit(::waitpid(job, nullptr, 0) == job ? 0 : 1);
    (void)::setpgid(0, 0);
  };
  const Seen background = runAtTerminal(arguments, {.inChild = goToBackground});
  EXPECT_EQ(background.bytes, saidToPrograms(arguments));
}

TEST_F(APersonAtATerminal, WhoInterruptsGetsACleanLine) {
  const Seen seen = runAtTerminal({"reset", "com.a", "kill"}, {.typed = "\x03"});
  ASSERT_TRUE(WIFSIGNALED(seen.waitStatus));
  EXPECT_EQ(WTERMSIG(seen.waitStatus), SIGINT);
  EXPECT_TRUE(seen.bytes.ends_with(kErase)) << seen.bytes;
  ASSERT_EQ(seen.lines.size(), 1U);
  EXPECT_EQ(seen.lines[0], "stopping com.a^C");
}

}  // namespace
}  // namespace morvane::test
