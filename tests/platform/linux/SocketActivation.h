// A socket as the system would offer it: starts a program for each connection, with the connection as its standard
// input.

#pragma once

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "foundation/FileDescriptor.h"
#include "linux/ChildProcess.h"

namespace platform::testing {

class SocketActivation {
 public:
  SocketActivation(const std::string &path, std::string program);
  SocketActivation(const SocketActivation &) = delete;
  SocketActivation &operator=(const SocketActivation &) = delete;
  // The programs that still run are ended.
  ~SocketActivation();

  int connections() const { return connections_; }

 private:
  void serve();

  std::string program_;
  vpnctl::FileDescriptor listener_;
  vpnctl::FileDescriptor stop_;
  std::atomic<int> connections_{0};
  std::vector<linux::ChildProcess> programs_;  // the thread's
  std::thread thread_;
};

}  // namespace platform::testing
