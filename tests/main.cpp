// The tests' main. The tool under test deletes below /var and kills processes by name, so before
// anything else this program moves into namespaces of its own: a mount namespace in which /var is
// an empty folder until a case puts its own there, and a PID namespace that holds nothing but the
// tests.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

[[noreturn]] void giveUp(const char* what) {
  std::fprintf(stderr,
               "tests: %s: %s\n"
               "tests: private mount and PID namespaces are needed: run as root, or allow user "
               "namespaces (sysctl kernel.unprivileged_userns_clone=1)\n",
               what, std::strerror(errno));
  std::exit(1);
}

void writeFile(const char* path, const std::string& text) {
  const int fd = ::open(path, O_WRONLY | O_CLOEXEC);
  if (fd == -1 || ::write(fd, text.data(), text.size()) == -1) giveUp(path);
  ::close(fd);
}

void becomeRootOfOwnNamespaces() {
  const std::string user = "0 " + std::to_string(::geteuid()) + " 1";
  const std::string group = "0 " + std::to_string(::getegid()) + " 1";
  if (::geteuid() == 0) {
    if (::unshare(CLONE_NEWNS | CLONE_NEWPID) != 0) giveUp("unshare");
    return;
  }
  if (::unshare(CLONE_NEWUSER | CLONE_NEWNS | CLONE_NEWPID) != 0) giveUp("unshare");
  writeFile("/proc/self/setgroups", "deny");
  writeFile("/proc/self/uid_map", user);
  writeFile("/proc/self/gid_map", group);
}

/// Goes on in a child; this process ends as the child does. As the first process of a PID namespace
/// it also has to collect the orphans.
void continueInChild() {
  const pid_t child = ::fork();
  if (child == -1) giveUp("fork");
  if (child == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    return;
  }
  int status = 0;
  for (pid_t ended = 0; ended != child;)
    ended = ::waitpid(-1, &status, 0);
  std::_Exit(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
}

void mountOrGiveUp(const char* type, const char* target, unsigned long flags) {
  if (::mount(type, target, type, flags, nullptr) != 0) giveUp(target);
}

void enterNamespaces() {
  becomeRootOfOwnNamespaces();
  continueInChild();  // the namespace's first process...
  mountOrGiveUp(nullptr, "/", MS_REC | MS_PRIVATE);
  mountOrGiveUp("proc", "/proc", MS_NOSUID | MS_NODEV | MS_NOEXEC);
  mountOrGiveUp("tmpfs", "/var", MS_RDONLY);
  continueInChild();  // ...and the tests, which signals reach as they reach others
}

}  // namespace

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  if (!::testing::GTEST_FLAG(list_tests)) enterNamespaces();
  return RUN_ALL_TESTS();
}
