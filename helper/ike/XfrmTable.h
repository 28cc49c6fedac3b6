// The kernel's IPSec states and policies, as far as one association goes: are they there, and away with them.
//
// Thread rule: the thread of the event loop. The kernel answers at once.

#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <memory>

#include "foundation/Result.h"

struct nl_sock;

namespace helper {

// One UDP flow, as seen from this machine.
struct UDPFlow {
  in_addr local{};
  std::uint16_t localPort = 0;
  in_addr remote{};
  std::uint16_t remotePort = 0;
};

class XfrmTable {
 public:
  virtual ~XfrmTable() = default;
  // Whether what the IKE daemon has made under REQID is for FLOW and nothing else: policies out and in with exactly
  // these addresses and ports, and a state in each direction. The error says what is not so.
  virtual foundation::Status protects(const UDPFlow &flow, std::uint32_t reqid) = 0;
  // Removes every state and policy of REQID, also those that wait for an association that never comes; and the SPIs
  // that a daemon had taken to make the keys of such states anew.
  virtual foundation::Status remove(std::uint32_t reqid) = 0;
  // Whether the kernel can do ESP; made sure of by trying, which may load modules.
  virtual bool knowsESP() = 0;
};

class NetlinkXfrmTable : public XfrmTable {
 public:
  // Of the error of open() when the kernel has no IPSec.
  static const int kNoIPSec;

  static foundation::Result<std::unique_ptr<NetlinkXfrmTable>> open();
  NetlinkXfrmTable(const NetlinkXfrmTable &) = delete;
  NetlinkXfrmTable &operator=(const NetlinkXfrmTable &) = delete;
  ~NetlinkXfrmTable() override;

  foundation::Status protects(const UDPFlow &flow, std::uint32_t reqid) override;
  foundation::Status remove(std::uint32_t reqid) override;
  bool knowsESP() override;

 private:
  explicit NetlinkXfrmTable(nl_sock *socket) : socket_(socket) {}

  nl_sock *socket_;
};

}  // namespace helper
