#include <sys/stat.h>
#include <unistd.h>

#include <new>
#include <span>

#include "cli/commands.h"
#include "platform/run_scope.h"
#include "report/output.h"

namespace {

/// Without exceptions there is nothing to unwind to: says why, and ends. What a run has not
/// published by then is left in its staging folder.
void outOfMemory() {
  morvane::writeOut(morvane::Stream::standardError, "[morvane_cli] out of memory\n");
  _exit(static_cast<int>(morvane::ExitStatus::failed));
}

}  // namespace

int main(int argc, char** argv) {
  std::set_new_handler(outOfMemory);
  morvane::prepareStreams();
  // The modes of what we make are our own choice, not the caller's.
  (void)umask(S_IWGRP | S_IWOTH);
  const morvane::platform::RunScope scope;
  const std::span<const char* const> arguments(argv, static_cast<size_t>(argc));
  return static_cast<int>(morvane::runCommand(arguments));
}
