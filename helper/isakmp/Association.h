// An association of phase 1 that stands: its keys protect quick modes and informational messages.
//
// Thread rule: as any object that keeps state.

#pragma once

#include <deque>

#include "helper/isakmp/KeyDerivation.h"
#include "helper/isakmp/Notification.h"
#include "helper/isakmp/Outputs.h"
#include "helper/isakmp/Randomness.h"
#include "helper/isakmp/Retransmission.h"
#include "helper/isakmp/Sealing.h"
#include "helper/isakmp/VendorIDs.h"

namespace helper::isakmp {

class Association {
 public:
  struct Terms {
    Cookies cookies;
    IKEProposal proposal;
    PhaseOneKeys keys;
    Bytes lastBlock;  // of phase 1
    PeerExtensions extensions;
    bool natAtUs = false;
    bool natAtServer = false;
    bool encapsulated = false;
    std::chrono::seconds lifetime{0};
    Identification peer;
  };

  Association(Terms terms, Instant now, Randomness &random);

  const Terms &terms() const { return terms_; }
  HashAlgorithm hash() const { return terms_.proposal.hash; }
  CipherAlgorithm cipher() const { return terms_.proposal.cipher; }
  const PhaseOneKeys &keys() const { return terms_.keys; }
  // The value of the mode attribute.
  std::uint16_t mode() const;
  Instant rekeyAt() const { return rekeyAt_; }
  Instant expires() const { return expires_; }

  // For an exchange that we begin.
  std::uint32_t chooseMessageID(Randomness &random);
  // For one that the peer begins: false for 0, and for one that there was before.
  bool takeMessageID(std::uint32_t id);
  Bytes ivFor(std::uint32_t messageID) const;
  Header header(ExchangeType exchange, std::uint32_t messageID) const;

  // One informational message, complete.
  Bytes informational(Randomness &random, PayloadType type, View body);
  Bytes tell(Randomness &random, const Notification &notification);
  Bytes tell(Randomness &random, const Deletion &deletion);
  // The deletion of this association itself.
  Deletion farewell() const;
  // As the SPI of notifications about this association.
  Bytes cookieBytes() const;

  // What a peer gets that has not heard our last message of phase 1.
  LastAnswer lastAnswer;

 private:
  bool isKnown(std::uint32_t id) const;

  Terms terms_;
  Instant rekeyAt_;
  Instant expires_;
  std::deque<std::uint32_t> messageIDs_;  // the latest
};

// When an association of LIFETIME is to be replaced, counted from its start: before the end, and not at the same moment
// as the peer's.
std::chrono::milliseconds timeToRekey(std::chrono::seconds lifetime, Randomness &random);
// The smaller of both, but not so small that the peer could keep us busy with nothing else.
std::chrono::seconds agreedLifetime(std::chrono::seconds ours, std::optional<std::chrono::seconds> theirs);

}  // namespace helper::isakmp
