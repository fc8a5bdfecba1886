#include "cli/usage.h"

#include "report/output.h"

namespace morvane {

void printUsage() {
  writeOut(Stream::standardOutput,
           "usage: morvane_cli reset <bundle[,bundle...]> <kill|clear> "
           "[sys=0|1,appdata=0|1,receipt=0|1]\n"
           "       morvane_cli backup <bundle[,bundle...]> <name> [keywords]\n"
           "       morvane_cli restore <name.morvane>\n"
           "       morvane_cli removebackup <name.morvane|ALL>\n");
}

}  // namespace morvane
