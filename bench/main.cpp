// morvane_bench: what scripts/bench cannot do itself without getting into its own figures.
//
//   tree DIR FILES FOLDERS [PERCENT]  makes a tree, like an app's; PERCENT of the files have
//   content containers ROOT COUNT             makes COUNT containers with a metadata file each time
//   COMMAND...                   runs a command: nanoseconds, kilobytes at most, exit status copy
//   FROM TO | remove DIR | locate ROOT NEEDLE    the floors

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "bench/floor.h"

namespace morvane::bench {
namespace {

constexpr uid_t kAppUser = 501;
constexpr int kFoldersInAFolder = 12;

using Words = std::vector<std::string>;

[[noreturn]] void giveUp(const std::string& what) {
  std::perror(what.c_str());
  std::exit(1);
}

int number(const std::string& word) {
  int value = 0;
  std::from_chars(word.data(), word.data() + word.size(), value);
  return value;
}

enum class Attributes { none, one };

/// Gives an open entry to the app, with an old time.
void finish(int fd, unsigned serial, Attributes attributes) {
  const timespec times[2] = {{1600000000 + serial, serial % 1000000000},
                             {1600000000 + serial, serial % 1000000000}};
  if (::fchown(fd, kAppUser, kAppUser) != 0) giveUp("chown");
  if (attributes == Attributes::one &&
      ::fsetxattr(fd, "user.bench", "attribute value", 15, 0) != 0 &&
      ::fsetxattr(fd, "trusted.bench", "attribute value", 15, 0) != 0) {
    giveUp("attribute");  // a tmpfs has the first since Linux 6.6
  }
  (void)::futimens(fd, times);
  ::close(fd);
}

void makeFile(int folder, unsigned serial, std::string_view content, Attributes attributes) {
  const std::string name = "file" + std::to_string(serial) + ".dat";
  const int fd = ::openat(folder, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd == -1 || ::write(fd, content.data(), content.size()) < 0) giveUp(name);
  finish(fd, serial, attributes);
}

/// Folders in breadth: folder i is in folder (i - 1) / kFoldersInAFolder. Files go round them.
void makeTree(const Words& words) {
  const int files = number(words[2]);
  const int folders = number(words[3]);
  const auto percentAt = [&](size_t word, int usual) {
    const unsigned percent =
        static_cast<unsigned>(words.size() > word ? number(words[word]) : usual);
    return [percent](unsigned serial) { return serial * 37 % 100 < percent; };
  };
  const auto isFilled = percentAt(4, 100);
  const auto attributesOf = [has = percentAt(5, 10)](unsigned serial) {
    return has(serial) ? Attributes::one : Attributes::none;
  };
  std::vector<std::string> paths{words[1]};
  ::mkdir(words[1].c_str(), 0755);
  for (int i = 1; i <= folders; ++i) {
    const auto parent = static_cast<size_t>((i - 1) / kFoldersInAFolder);
    paths.push_back(paths[parent] + "/folder" + std::to_string(1000000 + i));
    if (::mkdir(paths.back().c_str(), 0755) != 0) giveUp(paths.back());
  }
  std::mt19937 random(4711);
  const std::string content(4096, 'c');
  unsigned serial = 0;
  for (size_t i = paths.size(); i-- > 0;) {  // a folder's time after what is in it
    const int folder = ::open(paths[i].c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const int upTo =
        static_cast<int>((paths.size() - i) * static_cast<size_t>(files) / paths.size());
    for (; static_cast<int>(serial) < upTo; ++serial) {
      const size_t size = isFilled(serial) ? 1024 + random() % 3072 : 0;
      makeFile(folder, serial, std::string_view(content).substr(0, size), attributesOf(serial));
    }
    finish(folder, static_cast<unsigned>(i), attributesOf(static_cast<unsigned>(i)));
  }
}

void makeContainers(const Words& words) {
  const int count = number(words[2]);
  for (int i = 0; i < count; ++i) {
    const std::string folder = words[1] + "/container" + std::to_string(i);
    const std::string path = folder + "/.com.apple.mobile_container_manager.metadata.plist";
    ::mkdir(folder.c_str(), 0755);
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    const std::string text = "bplist00" + std::string(700, '\1') + "com.vendor" +
                             std::to_string(i) + ".app" + std::string(300, '\2');
    if (fd == -1 || ::write(fd, text.data(), text.size()) < 0) giveUp(path);
    ::close(fd);
  }
}

/// This process is small, so that what the kernel remembers of it before the exec is too.
int timeCommand(const Words& words) {
  std::vector<char*> arguments;
  for (size_t i = 1; i < words.size(); ++i)
    arguments.push_back(const_cast<char*>(words[i].c_str()));
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  ::posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  pid_t pid = -1;
  int status = 0;
  rusage usage{};
  const auto start = std::chrono::steady_clock::now();
  if (::posix_spawnp(&pid, arguments[0], &actions, nullptr, arguments.data(), environ) != 0)
    giveUp(words[1]);
  ::wait4(pid, &status, 0, &usage);
  const std::chrono::nanoseconds taken = std::chrono::steady_clock::now() - start;
  const auto nanoseconds = [](const timeval& time) {
    return static_cast<long long>(time.tv_sec) * 1'000'000'000 + time.tv_usec * 1'000LL;
  };
  std::printf("%lld %lld %ld %d\n", static_cast<long long>(taken.count()),
              nanoseconds(usage.ru_utime) + nanoseconds(usage.ru_stime), usage.ru_maxrss,
              WIFEXITED(status) ? WEXITSTATUS(status) : 128);
  return 0;
}

int run(const Words& words) {
  const auto is = [&](const char* command, size_t size) {
    return words.size() >= size && words[0] == command;
  };
  const auto folder = [](const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd == -1) giveUp(path);
    return fd;
  };
  if (is("tree", 4)) return makeTree(words), 0;
  if (is("containers", 3)) return makeContainers(words), 0;
  if (is("time", 2)) return timeCommand(words);
  if (is("copy", 3)) {
    ::mkdir(words[2].c_str(), 0755);
    return copyFolder(folder(words[1]), folder(words[2])), 0;
  }
  if (is("remove", 2)) return removeFolder(folder(words[1])), 0;
  if (is("locate", 3)) return locate(words[1].c_str(), words[2]) > 0 ? 0 : 1;
  std::fputs("morvane_bench: see the head of bench/main.cpp\n", stderr);
  return 2;
}

}  // namespace
}  // namespace morvane::bench

int main(int argc, char** argv) {
  return morvane::bench::run({argv + 1, argv + argc});
}
