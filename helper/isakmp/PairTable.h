// The pairs of ESP associations that stand: which is the newest, which was replaced, and when each ends.
//
// Thread rule: as a plain value.

#pragma once

#include <vector>

#include "helper/isakmp/Outputs.h"

namespace helper::isakmp {

struct Pair {
  PairID id = 0;
  std::uint32_t inboundSPI = 0;
  std::uint32_t outboundSPI = 0;
  std::optional<Instant> rekeyAt;   // counts for the newest only
  std::optional<Instant> retireAt;  // once replaced
  Instant expires{};

  Instant ends() const { return retireAt && *retireAt < expires ? *retireAt : expires; }
};

class PairTable {
 public:
  bool empty() const { return pairs_.empty(); }
  const std::vector<Pair> &all() const { return pairs_; }
  std::vector<PairID> ids() const;
  // PAIR is the newest from now on. Those in REPLACED, which stood when it began, end at RETIREAT: not one that was
  // agreed on at the same time, for of the two the peer may keep the other.
  void add(Pair pair, const std::vector<PairID> &replaced, Instant retireAt);
  std::optional<Pair> remove(PairID id);
  // By the SPI of either half: peers say the one or the other.
  std::optional<PairID> find(std::uint32_t spi) const;

  // When the next one is to be replaced, and when it is tried again if that fails.
  std::optional<Instant> rekeyAt() const { return pairs_.empty() ? std::nullopt : pairs_.back().rekeyAt; }
  void setRekeyAt(std::optional<Instant> when);
  // Whether the newest is one that was replaced, by one that is gone.
  bool newestRetires() const { return !pairs_.empty() && pairs_.back().retireAt; }
  std::optional<Instant> nextEnd() const;
  std::optional<PairID> ended(Instant now) const;

 private:
  std::vector<Pair> pairs_;
};

}  // namespace helper::isakmp
