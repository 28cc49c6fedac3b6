// What is offered to a server: how IKE and ESP may be protected, the best first.
//
// Thread rule: plain values.

#pragma once

#include <string>
#include <vector>

#include "helper/common/EngineSettings.h"
#include "helper/isakmp/Proposals.h"

namespace helper {

struct IKEProposals {
  std::vector<isakmp::IKEProposal> ike;
  std::vector<isakmp::ESPProposal> esp;

  // What the settings name, without those of their proposals that are unknown: each is a sentence part in UNUSABLE.
  // What they leave open is what the clients of the widespread systems offer, together; with FEW, for servers that
  // choke on many, what nearly all of them know. An error, a sentence part, when nothing that can be used is left.
  static vpnctl::Result<IKEProposals> from(const EngineSettings::IKE &settings, bool few,
                                           std::vector<std::string> &unusable);

  // "aes256-sha1-modp1024, aes128-sha1-modp1024"
  std::string ikeText() const;
  std::string espText() const;
};

}  // namespace helper
