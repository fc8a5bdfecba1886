#pragma once

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

/// Gives this process a /var of its own, in memory, which is gone when it ends. What the fuzzers
/// make the tool do must not reach the machine's.
inline void enterOwnVar() {
  const int user = geteuid() == 0 ? 0 : CLONE_NEWUSER;
  if (unshare(CLONE_NEWNS | user) != 0 ||
      mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount("tmpfs", "/var", "tmpfs", 0, "size=256m") != 0) {
    std::perror("a private /var");
    std::exit(1);
  }
}

/// Ends the run as a find, with what was expected.
inline void require(bool condition, const char* what) {
  if (condition) return;
  (void)std::fprintf(stderr, "not so: %s\n", what);
  std::abort();
}
