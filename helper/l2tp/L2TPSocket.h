// The UDP socket of one L2TP tunnel, connected to its server: its control messages, and the kernel's packets of the
// call, go through it.

#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <string>

#include "foundation/FileDescriptor.h"
#include "foundation/Result.h"
#include "helper/common/EngineSettings.h"

namespace helper {

class L2TPSocket {
 public:
  static constexpr std::uint16_t kPort = 1701;  // of servers, and of clients that can have it

  // Nothing is sent. WELL_KNOWN is the port that SOURCE_PORT speaks of.
  static vpnctl::Result<L2TPSocket> open(const sockaddr_in &server, EngineSettings::SourcePort sourcePort,
                                         std::uint16_t wellKnown = kPort);

  int descriptor() const { return socket_.get(); }
  bool hasWellKnownPort() const { return hasWellKnownPort_; }
  // Ours; 0 when nobody knows.
  std::uint16_t port() const;
  // What the user should know about the port that it got; empty: nothing. A sentence.
  const std::string &notice() const { return notice_; }

 private:
  L2TPSocket(vpnctl::FileDescriptor socket, bool hasWellKnownPort, std::string notice)
      : socket_(std::move(socket)), hasWellKnownPort_(hasWellKnownPort), notice_(std::move(notice)) {}

  vpnctl::FileDescriptor socket_;
  bool hasWellKnownPort_;
  std::string notice_;
};

}  // namespace helper
