// What a VPN server said, or did not say, to all that it was asked before a connection.
//
// Usual sequence: ServerAnswers::ask(). Thread rule: as a plain value. ask() blocks, for a minute at the longest, and
// sends a server at most five packets a second.

#pragma once

#include <optional>
#include <string>

#include "companions/probe/IKEProbe.h"
#include "companions/probe/PPTPProbe.h"
#include "companions/probe/PathMTU.h"
#include "companions/probe/ServerAddress.h"
#include "companions/probe/ServerRoute.h"

namespace companions {

struct ServerAnswers {
  struct Question {
    std::string server;  // as the configuration has it
    bool pptp = true;
    bool l2tp = true;
    std::vector<helper::isakmp::IKEProposal> proposals;
    bool mayHearGRE = false;  // only root may
  };

  ServerAddress address{};
  // Each is none where what came before left nothing to ask.
  std::optional<ServerRoute> route{};
  std::optional<PPTPFinding> pptp{};
  std::optional<IKEFinding> ike{};              // on port 500
  std::optional<IKEFinding> ikeEncapsulated{};  // on port 4500
  std::optional<ProposalFindings> proposals{};
  std::optional<PathMTU> mtu{};

  static ServerAnswers ask(const Question &question);
};

}  // namespace companions
