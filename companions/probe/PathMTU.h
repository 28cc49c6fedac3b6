// How large packets to a server may be: the largest that arrives whole. By ICMP echo, which is as large on its way
// back; where the server does not answer that, by IKE's first message, filled up, whose answer shows that it arrived.
//
// Usual sequence: find(). Thread rule: one thread; it blocks, as long as its limits say. Lack of randomness is
// std::system_error.

#pragma once

#include <optional>
#include <string>

#include "companions/probe/IKESocket.h"
#include "companions/probe/Pace.h"

namespace companions {

struct PathMTU {
  enum class Method {
    none,  // not to be found out; REASON
    echo,  // to the byte
    ike    // one of the usual sizes, or what a router said: a little more may fit
  };
  static constexpr int kSmallest = 576;  // what every host takes (RFC 791); less is not looked for

  struct Limits {
    std::chrono::milliseconds patience{1000};  // with one packet
    std::chrono::milliseconds deadline{30000};
    int tries = 2;  // of each size
  };

  Method method = Method::none;
  int bytes = 0;                       // of an IP packet; 0: not found out
  bool complete = false;               // otherwise the deadline came first, and more may fit
  std::optional<in_addr> saidBy = {};  // the router that named these bytes
  std::string reason = {};             // a sentence part

  // INTERFACEMTU: in bytes. END: where IKE is asked, if echo is not answered; none: not at all. PACE is for all that
  // asks this server.
  static PathMTU find(in_addr server, int interfaceMTU, const std::optional<IKEEnd> &end, Pace &pace,
                      const Limits &limits);
  static PathMTU findByEcho(in_addr server, int interfaceMTU, Pace &pace, const Limits &limits);
  // Asks with an offer that no server can take, so that it keeps nothing; only if it is silent about that, with a real
  // one, of which it keeps a few for a while.
  static PathMTU findByIKE(const IKEEnd &end, int interfaceMTU, Pace &pace, const Limits &limits);
};

}  // namespace companions
