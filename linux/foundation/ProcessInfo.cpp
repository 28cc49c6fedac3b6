#include "foundation/ProcessInfo.h"

#include <errno.h>

#include <fstream>

namespace vpnctl {

namespace {

// The arguments as the program was started with, for when there is no /proc. The kernel puts them one behind the other,
// and the C library hands them to what runs before main().
const char *firstArgument = nullptr;
int argumentCount = 0;

[[gnu::constructor]] void noteArguments(int count, char **arguments, char **) {
  firstArgument = count > 0 ? arguments[0] : nullptr;
  argumentCount = count;
}

}  // namespace

std::string ProcessInfo::processName() { return program_invocation_short_name; }

std::vector<std::string> ProcessInfo::arguments() {
  std::ifstream file("/proc/self/cmdline", std::ios::binary);
  std::vector<std::string> arguments;
  for (std::string argument; std::getline(file, argument, '\0');) arguments.push_back(argument);
  if (!arguments.empty()) return arguments;
  const char *next = firstArgument;
  for (int i = 0; i < argumentCount; ++i) next += arguments.emplace_back(next).size() + 1;
  return arguments;
}

}  // namespace vpnctl
