// Main mode from our side (RFC 2409, section 5): proposals, key exchange, proofs; six messages, the last two encrypted.
//
// Thread rule and sequence: PhaseOneExchange.

#pragma once

#include "helper/isakmp/PhaseOneExchange.h"

namespace helper::isakmp {

class MainMode : public PhaseOneExchange {
 public:
  explicit MainMode(const Setting &setting);

  Bytes firstMessage();
  Reaction receive(const Header &header, View datagram) override;
  Stage stage() const override { return stage_; }

 private:
  Reaction receiveChoice(const Header &header, View datagram);
  Reaction receiveHalf(const Header &header, View datagram);
  Reaction receiveProof(const Header &header, View datagram);
  Bytes proofMessage();

  Stage stage_ = Stage::firstAnswer;
};

}  // namespace helper::isakmp
