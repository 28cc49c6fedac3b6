// One VPN link of this machine as it is at the moment, as far as could be seen: a plain value without any secret.
//
// Thread rule: as a plain value.

#pragma once

#include <netinet/in.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "helper/common/IPv4Address.h"

namespace companions {

// By the wall's clock.
using Moment = std::chrono::system_clock::time_point;

struct Traffic {
  std::uint64_t bytesIn = 0;
  std::uint64_t bytesOut = 0;
  std::uint64_t packetsIn = 0;
  std::uint64_t packetsOut = 0;
  bool operator==(const Traffic &) const = default;
};

// Of the pair of ESP associations that packets go out by.
struct IPSecState {
  std::string algorithms;  // as engine.conf writes them: "aes256-sha1"; what that has no name for, as the kernel does
  bool insideUDP = false;
  Moment made{};
  // New ones come between these two moments, unless the server wants them earlier.
  Moment renewedFrom{};
  Moment renewedUntil{};
  Moment ends{};
};

struct LinkState {
  enum class Stage {
    comingUp,
    up,
    goingDown,
    leftBehind,  // its helper has died; the next connection takes back what it did
    unknown      // whoever asks may not see enough
  };
  // Who encrypts.
  enum class Encryption { unknown, ipsec, mppe, none };

  std::uint32_t number = 0;  // of links that are there at the same time, the newest has the highest
  Stage stage = Stage::unknown;
  std::string server;    // as the configuration writes it; empty: not seen
  std::string address;   // the server's; empty: not known yet
  std::string protocol;  // "PPTP", "L2TP"; empty: not seen
  std::optional<Moment> begun{};
  std::optional<Moment> upSince{};
  std::string interface;  // empty: there is none
  std::string localAddress;
  std::string peerAddress;
  std::uint32_t mtu = 0;  // 0: there is no interface
  std::optional<Traffic> traffic{};
  std::vector<helper::IPv4Network> networks{};  // what goes through it besides its own two addresses
  std::vector<std::string> nameServers{};       // that the server named
  Encryption encryption = Encryption::unknown;
  std::optional<IPSecState> ipsec{};
  pid_t helper = 0;  // 0: not seen, as of the other two
  pid_t pppd = 0;
  pid_t ike = 0;
  std::vector<std::string> needsRoot{};  // what is not shown only because whoever asks is not root
  std::string fault{};                   // why IPSec could not be seen although it should; a sentence part

  bool carriesEverything() const;
};

}  // namespace companions
