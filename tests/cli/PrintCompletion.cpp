// Prints the example's completion for the shell that is named.

#include <cstdio>

#include "cli/Completion.h"
#include "tests/cli/ExampleCommand.h"

int main(int argc, char **argv) {
  const auto shell = argc == 2 ? GB::shellNamed(argv[1]) : std::nullopt;
  if (!shell) return 1;
  std::fputs(GB::completionScript(kExample, *shell).c_str(), stdout);
  return 0;
}
