// Prints the completion of vpnctl-run for the shell that is named; what a build installs.

#include <cstdio>

#include "cli/Completion.h"
#include "companions/run/RunOptions.h"

int main(int argc, char *argv[]) {
  const auto shell = argc == 2 ? GB::shellNamed(argv[1]) : std::nullopt;
  if (!shell) return 1;
  return std::fputs(GB::completionScript(companions::kRunCommand, *shell).c_str(), stdout) < 0 ? 1 : 0;
}
