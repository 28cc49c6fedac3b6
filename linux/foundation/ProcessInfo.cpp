#include "foundation/ProcessInfo.h"

#include <errno.h>

#include <fstream>

namespace foundation {

std::string ProcessInfo::processName() { return program_invocation_short_name; }

std::vector<std::string> ProcessInfo::arguments() {
  std::ifstream file("/proc/self/cmdline", std::ios::binary);
  std::vector<std::string> arguments;
  for (std::string argument; std::getline(file, argument, '\0');) arguments.push_back(argument);
  return arguments;
}

}  // namespace foundation
