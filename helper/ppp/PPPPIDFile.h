// The file in which pppd notes its process number.
//
// Thread rule: any. Blocks only for the file system (memory).

#pragma once

#include <sys/types.h>

#include <string>

namespace helper {

// Removes FOLDER/pppN.pid of a pppd that was killed and left it, whatever N is: its interface may never have been heard
// of.
void removePIDFileOfPPPD(pid_t pid, const std::string &folder = "/run");

}  // namespace helper
