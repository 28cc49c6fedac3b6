// Prints the completion of one program for the shell that is named; what a build installs. VPNCTL_COMMAND is the
// program's definition, which is linked with this.

#include <cstdio>

#include "cli/Command.h"
#include "cli/Completion.h"

namespace companions {
extern const GB::Command VPNCTL_COMMAND;
}

int main(int argc, char *argv[]) {
  const auto shell = argc == 2 ? GB::shellNamed(argv[1]) : std::nullopt;
  if (!shell) return 1;
  return std::fputs(GB::completionScript(companions::VPNCTL_COMMAND, *shell).c_str(), stdout) < 0 ? 1 : 0;
}
