// Where an association writes down what it is about to change, so that the next helper can take it back if this one
// dies. The link's journal implements it.
//
// Thread rule: as its caller. Blocks only for the file system (memory).

#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "foundation/Result.h"

namespace helper {

// What an IKE daemon was given for us, and what the kernel got from it.
struct LoadedConnection {
  std::string controlSocket;  // the daemon's
  std::string name;           // of the connection; of the shared secret, too
  std::uint32_t reqid = 0;    // of the association's states and policies in the kernel
  bool operator==(const LoadedConnection &) const = default;
};

// An IKE daemon that a helper started, perhaps another than the one that writes this down: whoever uses it last ends
// it. Told from a later process of the same number by its start time.
struct StartedDaemon {
  pid_t pid = -1;
  std::uint64_t startTime = 0;
  std::string useFile;  // its users hold it locked
  // The machine had the daemon's rule for routes before: it stays.
  bool ruleWasThere = false;
  bool operator==(const StartedDaemon &) const = default;
};

class IPSecJournal {
 public:
  virtual ~IPSecJournal() = default;
  // When this fails, the change must not be made.
  virtual foundation::Status noteConnection(const LoadedConnection &entry) = 0;
  virtual foundation::Status noteDaemon(const StartedDaemon &entry) = 0;
  // The change has been taken back.
  virtual void forgetConnection(const LoadedConnection &entry) = 0;
  virtual void forgetDaemon(const StartedDaemon &entry) = 0;
};

}  // namespace helper
