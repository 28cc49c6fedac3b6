// A connection to an IKE daemon's control socket that waits for each answer: for taking back what a dead helper left,
// and for an end without an event loop.
//
// Thread rule: one thread. Everything blocks, never past the deadline.

#pragma once

#include <chrono>
#include <string>

#include "foundation/FileDescriptor.h"
#include "foundation/Result.h"
#include "helper/ike/ViciMessage.h"

namespace helper {

class ViciExchange {
 public:
  // DEADLINE is for everything that is said over it, from now on.
  static foundation::Result<ViciExchange> connect(const std::string &path, std::chrono::milliseconds deadline);

  // As ViciConnection::Reply says.
  foundation::Result<vici::Section> request(const std::string &command, vici::Section message);

 private:
  ViciExchange(foundation::FileDescriptor socket, std::chrono::steady_clock::time_point until)
      : socket_(std::move(socket)), until_(until) {}
  foundation::Status wait(short events);

  foundation::FileDescriptor socket_;
  std::chrono::steady_clock::time_point until_;
  vici::PacketReader reader_;
};

}  // namespace helper
