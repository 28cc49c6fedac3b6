#include "helper/ike/ESPPairs.h"

#include <algorithm>

namespace helper {

using isakmp::Direction;
using vpnctl::Error;
using vpnctl::Result;

namespace {

// One that is used, its successor, one more of the server's at the same moment, and those that it tries: each takes an
// SPI.
constexpr std::size_t kMostPairs = 16;
// Below it are those that mean something (RFC 4303, section 2.1).
constexpr std::uint32_t kLeastSPI = 256;
constexpr std::uint16_t kEncapsulationPort = 4500;

Error forbidden(const std::string &what) { return {"vpnctl-ike", 0, what}; }

}  // namespace

Result<IKEOrder> ESPPairs::allocate(const isakmp::NeedSPI &need) {
  if (pairs_.contains(need.pair)) return forbidden("an SPI for a pair that has one");
  if (pairs_.size() == kMostPairs) return forbidden("an SPI for one pair too many");
  const auto spi = states_->allocate(terms_.remote, terms_.local);
  if (!spi) {
    refusal_ = spi.error().message;
    return IKEOrder(IKENotInstalled{need.pair});
  }
  pairs_[need.pair].inboundSPI = *spi;
  return IKEOrder(IKEAllocated{need.pair, *spi});
}

std::string ESPPairs::objection(const isakmp::InstallState &state) const {
  const auto found = pairs_.find(state.pair);
  if (found == pairs_.end()) return "keys for a pair without an SPI";
  const Pair &pair = found->second;
  if (std::ranges::find(terms_.offered, state.algorithms) == terms_.offered.end())
    return "keys for algorithms that were not offered";
  if (state.cipherKey.size() != isakmp::keySize(state.algorithms.cipher) ||
      state.integrityKey.size() != isakmp::hashSize(state.algorithms.integrity))
    return "keys of a wrong size";
  if (terms_.encapsulated && !state.encapsulated) return "ESP that is not inside UDP";
  if (state.lifetime.count() <= 0 || state.lifetime > terms_.lifetime) return "keys for a time that was not offered";
  if (state.direction == Direction::inbound) {
    if (pair.inbound) return "inbound keys for the second time";
    if (state.spi != pair.inboundSPI) return "another SPI than the one that it got";
    return {};
  }
  if (!pair.inbound) return "outbound keys before inbound ones";
  if (pair.outboundSPI != 0) return "outbound keys for the second time";
  if (state.spi < kLeastSPI) return "an SPI that cannot be";
  if (state.algorithms != pair.algorithms || state.encapsulated != pair.encapsulated)
    return "a pair whose halves differ";
  return {};
}

ESPState ESPPairs::kernelState(const isakmp::InstallState &state) const {
  const bool inbound = state.direction == Direction::inbound;
  ESPState wanted;
  wanted.source = inbound ? terms_.remote : terms_.local;
  wanted.destination = inbound ? terms_.local : terms_.remote;
  wanted.spi = state.spi;
  wanted.algorithms = state.algorithms;
  wanted.cipherKey = state.cipherKey;
  wanted.integrityKey = state.integrityKey;
  if (state.encapsulated)
    wanted.encapsulation =
        inbound ? ESPState::Ports{kEncapsulationPort, terms_.port} : ESPState::Ports{terms_.port, kEncapsulationPort};
  wanted.lifetime = state.lifetime;
  return wanted;
}

Result<IKEOrder> ESPPairs::install(const isakmp::InstallState &state) {
  if (const std::string wrong = objection(state); !wrong.empty()) return forbidden(wrong);
  const bool inbound = state.direction == Direction::inbound;
  if (const auto installed = states_->install(kernelState(state), inbound); !installed) {
    refusal_ = installed.error().message;
    return IKEOrder(IKENotInstalled{state.pair});
  }
  Pair &pair = pairs_[state.pair];
  if (inbound) {
    pair.inbound = true;
    pair.algorithms = state.algorithms;
    pair.encapsulated = state.encapsulated;
  } else {
    pair.outboundSPI = state.spi;
  }
  return IKEOrder(IKEInstalled{state.pair, state.direction});
}

vpnctl::Status ESPPairs::remove(const isakmp::RemoveStates &states) {
  const auto found = pairs_.find(states.pair);
  // The kernel never gave it an SPI.
  if (found == pairs_.end()) return {};
  const Pair pair = found->second;
  if (states.inboundSPI != pair.inboundSPI || (pair.outboundSPI != 0 && states.outboundSPI != pair.outboundSPI))
    return forbidden("the end of a pair that is another");
  pairs_.erase(found);
  // Outbound first: what is sent after this goes by an older pair, or not at all. What cannot be removed is removed
  // with everything else of the reqid, at the end.
  if (pair.outboundSPI != 0) static_cast<void>(states_->remove(terms_.local, terms_.remote, pair.outboundSPI));
  static_cast<void>(states_->remove(terms_.remote, terms_.local, pair.inboundSPI));
  return {};
}

bool ESPPairs::stands(isakmp::PairID pair) const {
  const auto found = pairs_.find(pair);
  return found != pairs_.end() && found->second.outboundSPI != 0;
}

bool ESPPairs::anyStands() const {
  return std::ranges::any_of(
      pairs_, [](const auto &entry) { return entry.second.outboundSPI != 0; });
}

// What we remove ourselves is no pair any more when the kernel tells of it.
bool ESPPairs::misses(const ESPStateWatch::News &news) const {
  const auto isGone = [&](in_addr source, in_addr destination, std::uint32_t spi) {
    if (news.all) return !states_->has(source, destination, spi);
    return std::ranges::any_of(news.removed, [&](const ESPStateWatch::Removed &removed) {
      return removed.spi == spi && removed.destination.s_addr == destination.s_addr;
    });
  };
  return std::ranges::any_of(pairs_, [&](const auto &entry) {
    const Pair &pair = entry.second;
    return (pair.inbound && isGone(terms_.remote, terms_.local, pair.inboundSPI)) ||
           (pair.outboundSPI != 0 && isGone(terms_.local, terms_.remote, pair.outboundSPI));
  });
}

}  // namespace helper
