// The pairs of ESP associations that vpnctl-ike asks for. It speaks with strangers, so each of its reports is compared
// with what it was told to negotiate before the kernel hears of it.
//
// Usual sequence: allocate(), install() inbound, install() outbound, remove(); several pairs at a time while one
// replaces another.
//
// Thread rule: ESPStates'.

#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "helper/ike/ESPStateWatch.h"
#include "helper/ike/ESPStates.h"
#include "helper/ike/IKEProtocol.h"

namespace helper {

class ESPPairs {
 public:
  // What was ordered.
  struct Terms {
    in_addr local{};
    in_addr remote{};
    std::uint16_t port = 0;  // of the socket that speaks IKE
    std::vector<isakmp::ESPProposal> offered;
    bool encapsulated = false;  // necessarily
    std::chrono::seconds lifetime{0};
  };

  ESPPairs(std::unique_ptr<ESPStates> states, Terms terms) : states_(std::move(states)), terms_(std::move(terms)) {}

  // What the child is to be answered: also when the kernel refuses. An error is a sentence part that says what the
  // child may not ask for; nothing was done then.
  vpnctl::Result<IKEOrder> allocate(const isakmp::NeedSPI &need);
  vpnctl::Result<IKEOrder> install(const isakmp::InstallState &state);
  vpnctl::Status remove(const isakmp::RemoveStates &states);
  // Both halves of one are in the kernel.
  bool stands(isakmp::PairID pair) const;
  bool anyStands() const;
  // Whether somebody else took one away that should be there.
  bool misses(const ESPStateWatch::News &news) const;
  // Why the kernel refused, the last time; empty: it has not.
  const std::string &refusal() const { return refusal_; }

 private:
  struct Pair {
    std::uint32_t inboundSPI = 0;
    std::uint32_t outboundSPI = 0;  // 0: not yet
    bool inbound = false;           // it is in the kernel
    bool encapsulated = false;
    isakmp::ESPProposal algorithms;
  };

  // Empty: nothing is wrong.
  std::string objection(const isakmp::InstallState &state) const;
  ESPState kernelState(const isakmp::InstallState &state) const;

  std::unique_ptr<ESPStates> states_;
  Terms terms_;
  std::map<isakmp::PairID, Pair> pairs_;
  std::string refusal_;
};

}  // namespace helper
