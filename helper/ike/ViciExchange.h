// A connection to an IKE daemon's control socket that waits for the answer: for taking back what a dead helper left,
// and for an end without an event loop.
//
// Usual sequence: connect(), request(). After an answer that did not come in time the next one would be taken for it:
// what is to be asked then needs a connection of its own.
//
// Thread rule: one thread. Everything blocks, never past its deadline.

#pragma once

#include <chrono>
#include <string>

#include "foundation/FileDescriptor.h"
#include "foundation/Result.h"
#include "helper/ike/ViciMessage.h"

namespace helper {

class ViciExchange {
 public:
  // DEADLINE is for being let in, and again for each answer.
  static foundation::Result<ViciExchange> connect(const std::string &path, std::chrono::milliseconds deadline);

  // As ViciConnection::Reply says.
  foundation::Result<vici::Section> request(const std::string &command, vici::Section message);

 private:
  ViciExchange(foundation::FileDescriptor socket, std::chrono::milliseconds deadline)
      : socket_(std::move(socket)), deadline_(deadline) {}
  foundation::Status wait(short events);

  foundation::FileDescriptor socket_;
  std::chrono::milliseconds deadline_;
  std::chrono::steady_clock::time_point until_{};
  vici::PacketReader reader_;
};

}  // namespace helper
