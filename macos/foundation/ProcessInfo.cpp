#include "foundation/ProcessInfo.h"

#include <crt_externs.h>
#include <stdlib.h>

namespace vpnctl {
namespace {

// Taken before main, whose getopt reorders them.
const std::vector<std::string> kArguments(*_NSGetArgv(), *_NSGetArgv() + *_NSGetArgc());

}  // namespace

std::string ProcessInfo::processName() { return ::getprogname(); }

std::vector<std::string> ProcessInfo::arguments() { return kArguments; }

}  // namespace vpnctl
