// Aggressive mode from our side (RFC 2409, section 5.4): three messages, the server's proof in clear.
//
// Thread rule and sequence: PhaseOneExchange.

#pragma once

#include "helper/isakmp/PhaseOneExchange.h"

namespace helper::isakmp {

class AggressiveMode : public PhaseOneExchange {
 public:
  explicit AggressiveMode(const Setting &setting);

  Bytes firstMessage();
  Reaction receive(const Header &header, View datagram) override;
  Stage stage() const override { return done_ ? Stage::association : Stage::firstAnswer; }

 private:
  Bytes proofMessage();

  std::vector<IKEProposal> offered_;
  bool done_ = false;
};

}  // namespace helper::isakmp
