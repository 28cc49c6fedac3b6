// Why IKE came to nothing, in sentences for the PPP log: which server, how far, why, and the remedy. Plain ASCII.
//
// Thread rule: these keep no state.

#pragma once

#include <optional>
#include <string>

#include "helper/ike/IKEProposals.h"
#include "helper/isakmp/Outputs.h"

namespace helper {

// What was tried.
struct IKESituation {
  std::string server;  // its address
  const EngineSettings::IKE &settings;
  const IKEProposals &offered;
  std::string identity;  // ours
  std::uint16_t flowLocalPort = 0;
  std::optional<std::uint16_t> otherFlowLocalPort;
  std::uint16_t flowRemotePort = 0;
  std::string kernelRefusal;  // of keys; empty: it took them
  bool kernelKnowsESP = true;
};

std::string sentenceFor(const isakmp::Refused &refused, const IKESituation &situation);
std::string sentenceFor(const isakmp::Lost &lost, const std::string &server);

}  // namespace helper
