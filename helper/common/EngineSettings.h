// What the field needs and a connection's own few settings cannot say: the machine's settings of the engine, from
// /etc/vpnctl/engine.conf, and for one server from /etc/vpnctl/engine.d. A plain value; as it is made, everything is
// the engine's default.
//
// Thread rule: none; read() blocks for the reading.

#pragma once

#include <unistd.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace helper {

struct EngineSettings {
  static constexpr char kFolder[] = "/etc/vpnctl";            // of engine.conf, and of engine.d
  static constexpr char kPath[] = "/etc/vpnctl/engine.conf";  // for sentences

  // Where L2TP's packets come from: port 1701 if nobody has it and no client has just died on it, otherwise any, and
  // the other one if the server does not take the first; always 1701; always any.
  enum class SourcePort { automatic, wellKnown, any };
  // What PPTP's encryption is to be: as the service says (required), 128 bits required, none.
  enum class MPPE { service, require128, none };

  // How IKE begins: who is who is said when it is protected, or before.
  enum class IKEMode { main, aggressive };

  // What becomes of IPv6 while a link carries everything: it is refused, or goes on past it.
  enum class IPv6 { refuse, leave };

  struct IKE {
    std::vector<std::string> proposals;      // strongSwan's notation ("aes256-sha1-modp1024"); empty: the broad default
    std::vector<std::string> espProposals;   // likewise; with a group for perfect forward secrecy
    std::string localIdentity = "%address";  // what we call ourselves
    std::string remoteIdentity = "%any";     // what the server must call itself
    IKEMode mode = IKEMode::main;
    std::chrono::milliseconds deadline{30000};  // for the association to stand
    std::chrono::seconds lifetime{3600};        // of the IKE SA, before it is made anew
    std::chrono::seconds espLifetime{3600};     // likewise of the ESP SAs
    std::chrono::seconds deadPeerDelay{30};     // of silence before the server is asked whether it lives; 0: never
  };
  struct L2TP {
    SourcePort sourcePort = SourcePort::automatic;
    std::chrono::milliseconds deadline{10000};  // for the call to stand, from the first packet
    std::chrono::seconds deadPeerDelay{60};     // of silence before the server is asked whether it lives
  };
  struct PPTP {
    MPPE mppe = MPPE::service;
    std::chrono::milliseconds deadline{10000};  // for the call to stand, from the first packet
    std::chrono::seconds deadPeerDelay{60};     // of silence before the server is asked whether it lives
  };
  struct PPP {
    std::optional<int> mtu;  // bytes
    std::optional<int> mru;
    std::vector<std::string> authProtocols;  // of PAP, CHAP, MSCHAP1, MSCHAP2, EAP; empty: as the service says
    std::vector<std::string> domains;        // names below these are asked of the server's name servers
    std::optional<bool> dns;                 // the server's name servers; none: as the service says
    std::optional<bool> defaultRoute;        // everything into the tunnel; none: as the service says
    std::vector<std::string> routes;         // IPv4 networks that go into the tunnel instead of everything
    std::optional<bool> localNetworks;       // other routes than the default one come before the tunnel's; none: yes
    IPv6 ipv6 = IPv6::refuse;
    std::optional<int> echoInterval;            // seconds between questions whether PPP's other end lives
    std::optional<int> echoFailures;            // how many of them may go unanswered
    std::optional<bool> debug;                  // pppd's packets into the log; none: as the service's VerboseLogging
    std::chrono::milliseconds deadline{60000};  // for PPP to stand once the tunnel does
  };

  IKE ike;
  L2TP l2tp;
  PPTP pptp;
  PPP ppp;

  struct Reading;
  // The settings of the file at PATH. Whatever in it cannot be used is a complaint, and its default holds: an unknown
  // key, a wrong type, a value out of range one by one; a syntax error, and a file that others than its owner, OWNER,
  // may write, as a whole. A missing file is all defaults without a complaint.
  static Reading read(const std::string &path, uid_t owner = ::geteuid());
  // Likewise of FOLDER/engine.conf, with the settings of FOLDER/engine.d/SERVER.conf over them. SERVER is an address or
  // a name; for one that cannot be the name of a file there is none.
  static Reading readFor(const std::string &server, const std::string &folder = kFolder, uid_t owner = ::geteuid());
  // Likewise of TEXT; PATH is what complaints call it.
  static Reading parse(const std::string &text, const std::string &path);
  // The names of all settings ("ike.proposals"), for those who document them.
  static std::vector<std::string> names();
};

struct EngineSettings::Reading {
  EngineSettings settings;
  std::vector<std::string> complaints;  // sentences for the PPP log, with file and line
};

}  // namespace helper
