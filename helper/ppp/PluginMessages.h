// What the plugin says, as values. helper/ppp/PluginProtocol.h describes the records; whatever differs from them in
// version, type, size or sense is an error, never a guess.

#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "foundation/Result.h"

namespace helper {

struct PluginNeedsChannel {
  bool operator==(const PluginNeedsChannel &) const = default;
};

struct PluginPhase {
  int phase = 0;  // pppd's number
  std::uint32_t packetsReceived = 0;
  bool operator==(const PluginPhase &) const = default;
};

struct PluginNeedsPassword {
  bool operator==(const PluginNeedsPassword &) const = default;
};

struct PluginIPUp {
  std::string interface;
  in_addr localAddress{};
  in_addr peerAddress{};
  std::vector<in_addr> dns;
  int mtu = 0;
  int mru = 0;
  bool encrypted = false;  // by MPPE, in both directions
};

// What the server wanted while PPP was negotiated, and what it refused.
struct PPPDispute {
  std::uint32_t wantedAuthentication = 0;  // the protocol's number, times 256, and CHAP's algorithm; 0: none
  bool address = false;                    // it gives us none
  bool encryption = false;                 // it takes no MPPE
  bool operator==(const PPPDispute &) const = default;
};

struct PluginExit {
  int status = 0;
  std::uint32_t packetsReceived = 0;
  PPPDispute dispute{};
  bool operator==(const PluginExit &) const = default;
};

using PluginMessage = std::variant<PluginNeedsChannel, PluginPhase, PluginNeedsPassword, PluginIPUp, PluginExit>;

// One record as it was received.
vpnctl::Result<PluginMessage> decodePluginMessage(std::span<const std::uint8_t> record);

}  // namespace helper
