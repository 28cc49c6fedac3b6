// Where an association writes down what it is about to change, so that the next helper can take it back if this one
// dies. The link's journal implements it.
//
// Thread rule: as its caller. Blocks only for the file system (memory).

#pragma once

#include <sys/types.h>

#include <cstdint>

#include "foundation/Result.h"

namespace helper {

// What the kernel got for an association.
struct ProtectedFlow {
  std::uint32_t reqid = 0;  // of its states
  bool operator==(const ProtectedFlow &) const = default;
};

// A process that we started, told from a later one of the same number by its start time (field 22 of /proc/PID/stat).
struct StartedProcess {
  pid_t pid = -1;
  std::uint64_t startTime = 0;
  bool operator==(const StartedProcess &) const = default;
};

class IPSecJournal {
 public:
  virtual ~IPSecJournal() = default;
  // When this fails, the change must not be made.
  virtual vpnctl::Status noteFlow(const ProtectedFlow &entry) = 0;
  virtual vpnctl::Status noteProcess(const StartedProcess &entry) = 0;
  // The change has been taken back.
  virtual void forgetFlow(const ProtectedFlow &entry) = 0;
  virtual void forgetProcess(const StartedProcess &entry) = 0;
};

}  // namespace helper
