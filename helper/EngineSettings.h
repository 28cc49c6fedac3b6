// What the field needs and a connection's own few settings cannot say: the machine's settings of the engine, from
// /etc/vpnctl/engine.conf. A plain value; as it is made, everything is the engine's default.

#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace helper {

struct EngineSettings {
  static constexpr char kPath[] = "/etc/vpnctl/engine.conf";

  // Where L2TP's packets come from: port 1701 if nobody has it, otherwise any; always 1701; always any.
  enum class SourcePort { automatic, wellKnown, any };
  // What PPTP's encryption is to be: as the service says (required), 128 bits required, none.
  enum class MPPE { service, require128, none };

  struct IKE {
    std::vector<std::string> proposals;     // strongSwan's notation ("aes256-sha1-modp1024"); empty: the broad default
    std::vector<std::string> espProposals;  // likewise
    std::string remoteIdentity = "%any";    // what the server must call itself
    std::chrono::milliseconds deadline{30000};  // for the association to stand
  };
  struct L2TP {
    SourcePort sourcePort = SourcePort::automatic;
    std::chrono::milliseconds deadline{10000};  // for the call to stand, from the first packet
  };
  struct PPTP {
    MPPE mppe = MPPE::service;
    std::chrono::milliseconds deadline{10000};  // for the call to stand, from the first packet
  };
  struct PPP {
    std::optional<int> mtu;  // bytes
    std::optional<int> mru;
    std::vector<std::string> authProtocols;     // of PAP, CHAP, MSCHAP1, MSCHAP2, EAP; empty: as the service says
    std::optional<bool> dns;                    // the server's name servers; none: as the service says
    std::optional<bool> defaultRoute;           // everything into the tunnel; none: as the service says
    std::chrono::milliseconds deadline{60000};  // for the whole link to stand
  };

  IKE ike;
  L2TP l2tp;
  PPTP pptp;
  PPP ppp;
};

}  // namespace helper
