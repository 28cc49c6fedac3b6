// What may protect IKE, and what may protect packets, in strongSwan's notation: "aes256-sha1-modp1024".
//
// Thread rule: as plain values.

#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/Result.h"
#include "helper/isakmp/Algorithms.h"

namespace helper::isakmp {

struct IKEProposal {
  CipherAlgorithm cipher = CipherAlgorithm::aes256;
  HashAlgorithm hash = HashAlgorithm::sha1;
  Group group = Group::modp2048;

  std::string text() const;
  bool operator==(const IKEProposal &) const = default;
};

struct ESPProposal {
  CipherAlgorithm cipher = CipherAlgorithm::aes256;
  HashAlgorithm integrity = HashAlgorithm::sha1;
  std::optional<Group> group;  // for perfect forward secrecy

  std::string text() const;
  bool operator==(const ESPProposal &) const = default;
};

// The best first. An error names the text and the algorithm that is unknown or too many.
vpnctl::Result<std::vector<IKEProposal>> parseIKEProposals(const std::vector<std::string> &texts);
// All of them, or none, must name a group, and the same: the key exchange begins before the server has chosen.
vpnctl::Result<std::vector<ESPProposal>> parseESPProposals(const std::vector<std::string> &texts);

// What the clients of the widespread systems offer, together, and what servers that have parted with the oldest ask
// for.
std::vector<IKEProposal> defaultIKEProposals();
std::vector<ESPProposal> defaultESPProposals();
// For servers that choke on many: what nearly all of them know.
std::vector<IKEProposal> fewIKEProposals();
std::vector<ESPProposal> fewESPProposals();

}  // namespace helper::isakmp
