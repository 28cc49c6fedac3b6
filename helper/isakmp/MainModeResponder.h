// Main mode as the server begins it, to make IKE's keys anew.
//
// Thread rule and sequence: PhaseOneExchange. The server repeats what we did not answer; we repeat an answer that it
// did not hear.

#pragma once

#include "helper/isakmp/PhaseOneExchange.h"

namespace helper::isakmp {

class MainModeResponder : public PhaseOneExchange {
 public:
  // HEADER: of the server's first message.
  MainModeResponder(const Setting &setting, const Header &header);

  Reaction receive(const Header &header, View datagram) override;
  Stage stage() const override { return stage_; }

 private:
  Reaction receiveOffer(const Header &header, View datagram);
  Reaction receiveHalf(const Header &header, View datagram);
  Reaction receiveProof(const Header &header, View datagram);

  Stage stage_ = Stage::firstAnswer;
  LastAnswer answer_;
};

}  // namespace helper::isakmp
