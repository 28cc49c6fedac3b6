// The kernel's ESP associations (XFRM states) of one reqid, which the guard of a socket demands: SPIs for those to
// come, and making them. XfrmTable takes them all away again.
//
// Thread rule: the thread of the event loop. The kernel answers at once, but for loading a module.

#pragma once

#include <netinet/in.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>

#include "foundation/Result.h"
#include "foundation/Secret.h"
#include "helper/isakmp/Proposals.h"

struct nl_sock;

namespace helper {

// Packets from SOURCE to DESTINATION, in transport mode.
struct ESPState {
  struct Ports {
    std::uint16_t source = 0;
    std::uint16_t destination = 0;
  };

  in_addr source{};
  in_addr destination{};
  std::uint32_t spi = 0;
  isakmp::ESPProposal algorithms;
  vpnctl::Secret cipherKey;
  vpnctl::Secret integrityKey;
  std::optional<Ports> encapsulation{};  // in UDP between these ports
  std::chrono::seconds lifetime{0};      // then the kernel forgets it, if nobody else did
};

class ESPStates {
 public:
  virtual ~ESPStates() = default;
  // An SPI for packets from SOURCE to DESTINATION that is nobody else's, for half a minute.
  virtual vpnctl::Result<std::uint32_t> allocate(in_addr source, in_addr destination) = 0;
  // Of an inbound state, whose SPI was allocated, or an outbound one. The newest outbound one is used.
  virtual vpnctl::Status install(const ESPState &state, bool inbound) = 0;
  // Success also when there is none (any more).
  virtual vpnctl::Status remove(in_addr source, in_addr destination, std::uint32_t spi) = 0;
  // Whether one with this SPI is in the kernel. Also true when the kernel does not say.
  virtual bool has(in_addr source, in_addr destination, std::uint32_t spi) = 0;
};

class NetlinkESPStates : public ESPStates {
 public:
  static vpnctl::Result<std::unique_ptr<NetlinkESPStates>> open(std::uint32_t reqid);
  NetlinkESPStates(const NetlinkESPStates &) = delete;
  NetlinkESPStates &operator=(const NetlinkESPStates &) = delete;
  ~NetlinkESPStates() override;

  vpnctl::Result<std::uint32_t> allocate(in_addr source, in_addr destination) override;
  vpnctl::Status install(const ESPState &state, bool inbound) override;
  vpnctl::Status remove(in_addr source, in_addr destination, std::uint32_t spi) override;
  bool has(in_addr source, in_addr destination, std::uint32_t spi) override;

 private:
  NetlinkESPStates(nl_sock *socket, std::uint32_t reqid) : socket_(socket), reqid_(reqid) {}
  int give(const ESPState &state, int type);

  nl_sock *socket_;
  std::uint32_t reqid_;
};

}  // namespace helper
