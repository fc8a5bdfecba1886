// The built tool under ptrace.

#include <fcntl.h>
#include <signal.h>
#include <sys/syscall.h>

#include "reliability/faulty_run.h"

namespace morvane::test {

const char* const kEnded = "killed_";
const char* const kFailed = "failed_";

FaultyRun runFaulty(const std::vector<std::string>& arguments, const Fault& fault,
                    const AtCall& atCall) {
  FaultyRun run;
  const auto carryOut = [&](const Call& call) {
    const bool own = call.number == SYS_fcntl && call.arguments[1] == F_GETFD;
    if (own && run.ownCalls == 0) run.ownCalls = run.calls.size();
    run.calls.push_back(call);
    if (atCall) atCall(call);
    if (call.number == SYS_exit_group) run.openAtEnd = openDescriptors(call.pid);
    if (fault.kind == Fault::Kind::end && call.count == fault.at) {
      ::kill(call.pid, SIGKILL);
    } else if (call.number == SYS_clock_nanosleep) {
      call.answer(0);
    } else if (fails(fault, call)) {
      // brk has no error of its own: it answers where the break still is, brk(2).
      call.answer(call.number == SYS_brk ? 0 : -fault.error);
    }
  };
  run.outcome = cli(arguments, carryOut);
  return run;
}

}  // namespace morvane::test
