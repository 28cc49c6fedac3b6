// The processes of this machine, as everybody may see them: which pppd is whose, and whether a helper still runs.
//
// Thread rule: none of these keeps state. Blocks only for files in memory.

#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace companions {

struct RunningProcess {
  pid_t pid = 0;
  pid_t parent = 0;
  std::uint64_t startTime = 0;  // field 22 of /proc/PID/stat
  std::string name{};           // at most 15 bytes of it
  std::uint32_t link = 0;       // of a pppd of ours the number of its link; 0: it is none
  std::string interface {};     // of such a pppd that has one
};

// FOLDER is /proc or what stands for it. JOURNALS is the folder of the links' folders, which our pppds are given in
// their arguments; in PROCESS_NUMBERS pppd notes its own number, in a file named after its interface. In no order.
std::vector<RunningProcess> runningProcesses(const std::string &folder, const std::string &journals,
                                             const std::string &processNumbers);

}  // namespace companions
