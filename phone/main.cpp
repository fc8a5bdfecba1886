// The command morvane_phone.

#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "phone/catalogue.h"
#include "phone/enter.h"
#include "phone/make_phone.h"
#include "phone/processes.h"
#include "phone/show.h"
#include "phone/survey.h"

namespace morvane::phone {
namespace {

constexpr int kOk = 0;
constexpr int kFailed = 1;
constexpr int kUsage = 2;
// As env(1), timeout(1) and others that run a command have it.
constexpr int kRunFailed = 125;
constexpr int kNotExecutable = 126;
constexpr int kNotFound = 127;

constexpr const char* kUsageText =
    "usage: morvane_phone new DIR [--app BUNDLE]... [--files N] [--seed S]\n"
    "       morvane_phone run DIR [--] COMMAND...\n"
    "       morvane_phone show DIR [--json]\n";

using Words = std::vector<std::string>;

int fail(const Result& result, int status = kFailed) {
  std::fprintf(stderr, "morvane_phone: %s\n", result.reason().c_str());
  return status;
}

int usageError(const std::string& what) {
  std::fprintf(stderr, "morvane_phone: %s\n%s", what.c_str(), kUsageText);
  return kUsage;
}

volatile std::sig_atomic_t interrupted = 0;
void interrupt(int) {
  interrupted = 1;
}

bool readNumber(const std::string& text, std::uint64_t& number) {
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  return error == std::errc() && stop == end;
}

// A folder as the user gave it, without the slashes that may end it.
std::string folderName(std::string dir) {
  while (dir.size() > 1 && dir.back() == '/')
    dir.pop_back();
  return dir;
}

// Takes one option and its value into `options`; what is wrong with them, if anything is.
std::optional<std::string> readOption(const std::string& name, const std::string& value,
                                      PhoneOptions& options) {
  if (name == "--app") {
    if (!isPossibleIdentifier(value)) return "not a bundle identifier: " + value;
    for (const std::string& other : options.apps) {
      if (other == value) return "named twice: " + value;
    }
    options.apps.push_back(value);
    return std::nullopt;
  }
  std::uint64_t& number = name == "--files" ? options.files : options.seed;
  if (name != "--files" && name != "--seed") return "unknown option: " + name;
  if (!readNumber(value, number)) return "not a number: " + value;
  return std::nullopt;
}

int commandNew(const Words& words) {
  if (words.empty() || words[0].empty()) return usageError("new takes a folder");
  // A misplaced option must not become a folder that is hard to remove.
  if (words[0][0] == '-') return usageError("new takes a folder before any option");
  PhoneOptions options;
  for (std::size_t i = 1; i < words.size(); i += 2) {
    if (i + 1 == words.size()) return usageError(words[i] + " takes a value");
    if (const auto wrong = readOption(words[i], words[i + 1], options)) return usageError(*wrong);
  }
  for (const int signal : {SIGINT, SIGTERM, SIGHUP})
    std::signal(signal, interrupt);
  std::set<std::string> notes;
  const Result made = makePhone(folderName(words[0]), options, &interrupted, notes);
  if (!made) return fail(made);
  for (const std::string& note : notes)
    std::fprintf(stderr, "morvane_phone: %s\n", note.c_str());
  return kOk;
}

int execute(const Words& command) {
  std::vector<char*> arguments;
  for (const std::string& word : command)
    arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  execvp(arguments[0], arguments.data());
  const int error = errno;
  return fail(Result::failed("run", command[0], error),
              error == ENOENT ? kNotFound : kNotExecutable);
}

int commandRun(Words words) {
  const bool hasDashes = words.size() > 1 && words[1] == "--";
  const std::size_t first = hasDashes ? 2 : 1;
  if (words.size() <= first) return usageError("run takes a phone and a command");
  const std::string dir = folderName(words[0]);
  Description description;
  if (const Result read = readDescription(dir, description); !read) return fail(read, kRunFailed);
  EnterOptions options;
  options.var = varFolder(dir);
  options.asInit = [&description] { return startProcesses(description); };
  if (const Result entered = enterPhone(options); !entered) return fail(entered, kRunFailed);
  // The machine's own is read-only here.
  setenv("TMPDIR", "/var/tmp", 1);
  words.erase(words.begin(), words.begin() + static_cast<std::ptrdiff_t>(first));
  return execute(words);
}

int commandShow(const Words& words) {
  const bool wantsJson = words.size() == 2 && words[1] == "--json";
  if (words.size() != 1 && !wantsJson) return usageError("show takes a phone");
  Survey survey;
  if (const Result looked = surveyPhone(folderName(words[0]), survey); !looked) return fail(looked);
  std::fputs((wantsJson ? showAsJson(survey) : showAsText(survey)).c_str(), stdout);
  return std::fflush(stdout) == 0 ? kOk : fail(Result::failed("write", "the answer", errno));
}

int runCommand(const Words& words) {
  if (words.empty()) return usageError("no command");
  if (words[0] == "help" || words[0] == "--help") {
    return std::fputs(kUsageText, stdout) >= 0 && std::fflush(stdout) == 0 ? kOk : kFailed;
  }
  const Words rest(words.begin() + 1, words.end());
  if (words[0] == "new") return commandNew(rest);
  if (words[0] == "run") return commandRun(rest);
  if (words[0] == "show") return commandShow(rest);
  return usageError("unknown command: " + words[0]);
}

}  // namespace
}  // namespace morvane::phone

int main(int argc, char** argv) {
  morvane::phone::idleIfOfPhone();
  return morvane::phone::runCommand({argv + 1, argv + argc});
}
