#include "helper/isakmp/PairTable.h"

#include <algorithm>

namespace helper::isakmp {

std::vector<PairID> PairTable::ids() const {
  std::vector<PairID> ids;
  for (const Pair &pair : pairs_) ids.push_back(pair.id);
  return ids;
}

void PairTable::add(Pair pair, const std::vector<PairID> &replaced, Instant retireAt) {
  for (Pair &old : pairs_)
    if (!old.retireAt && std::find(replaced.begin(), replaced.end(), old.id) != replaced.end()) old.retireAt = retireAt;
  pairs_.push_back(pair);
}

std::optional<Pair> PairTable::remove(PairID id) {
  const auto pair = std::find_if(pairs_.begin(), pairs_.end(), [&](const Pair &p) { return p.id == id; });
  if (pair == pairs_.end()) return std::nullopt;
  const Pair removed = *pair;
  pairs_.erase(pair);
  return removed;
}

std::optional<PairID> PairTable::find(std::uint32_t spi) const {
  for (const Pair &pair : pairs_)
    if (pair.inboundSPI == spi || pair.outboundSPI == spi) return pair.id;
  return std::nullopt;
}

void PairTable::setRekeyAt(std::optional<Instant> when) {
  if (!pairs_.empty()) pairs_.back().rekeyAt = when;
}

std::optional<Instant> PairTable::nextEnd() const {
  std::optional<Instant> next;
  for (const Pair &pair : pairs_)
    if (!next || pair.ends() < *next) next = pair.ends();
  return next;
}

std::optional<PairID> PairTable::ended(Instant now) const {
  for (const Pair &pair : pairs_)
    if (pair.ends() <= now) return pair.id;
  return std::nullopt;
}

}  // namespace helper::isakmp
