// The kernel's IPSec states, as far as one association goes: away with them, and whether there are others beside it.
//
// Thread rule: the thread of the event loop. The kernel answers at once.

#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <memory>

#include "foundation/Result.h"

struct nl_sock;

namespace helper {

class XfrmTable {
 public:
  virtual ~XfrmTable() = default;
  // Removes every state of REQID, also those that wait for an association that never comes.
  virtual vpnctl::Status remove(std::uint32_t reqid) = 0;
  // Whether there is any between these two of another number: somebody else's here, who has the same server. False also
  // when the kernel does not say.
  virtual bool hasOthers(in_addr local, in_addr remote, std::uint32_t reqid) = 0;
  // Whether the kernel can do ESP; made sure of by trying, which may load modules.
  virtual bool knowsESP() = 0;
};

class NetlinkXfrmTable : public XfrmTable {
 public:
  // Of the error of open() when the kernel has no IPSec.
  static const int kNoIPSec;

  static vpnctl::Result<std::unique_ptr<NetlinkXfrmTable>> open();
  NetlinkXfrmTable(const NetlinkXfrmTable &) = delete;
  NetlinkXfrmTable &operator=(const NetlinkXfrmTable &) = delete;
  ~NetlinkXfrmTable() override;

  vpnctl::Status remove(std::uint32_t reqid) override;
  bool hasOthers(in_addr local, in_addr remote, std::uint32_t reqid) override;
  bool knowsESP() override;

 private:
  explicit NetlinkXfrmTable(nl_sock *socket) : socket_(socket) {}

  nl_sock *socket_;
};

// Takes everything of REQID out of the kernel, as remove() does; success also where the kernel has no IPSec.
vpnctl::Status removeIPSecStates(std::uint32_t reqid);

}  // namespace helper
