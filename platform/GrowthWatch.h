// Sleeps until a stream's file has changed, or a time is over.
//
// Thread rule: one thread.

#pragma once

#include <chrono>
#include <cstdio>

#include "foundation/FileDescriptor.h"

namespace platform {

class GrowthWatch {
 public:
  // Watches the file that is open in STREAM, whatever its name means later. Where that is not possible (a stream
  // without a file, no watches left) sleeps are simply not cut short.
  explicit GrowthWatch(std::FILE *stream);

  // Returns when the file has changed since the last call (or since the watch was made), or after LIMIT.
  void sleep(std::chrono::milliseconds limit);

 private:
  vpnctl::FileDescriptor changes_;
};

}  // namespace platform
