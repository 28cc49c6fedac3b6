#include "helper/ike/IKEProtocol.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

namespace helper {

using vpnctl::Error;
using vpnctl::Result;
using vpnctl::Secret;
using namespace isakmp;

namespace {

constexpr std::uint8_t kVersion = 1;
constexpr std::size_t kMaximumProposals = 64;  // of one list

// The last of each, so that no number becomes one that there is not.
template <class Enumeration>
constexpr Enumeration kLast{};
template <>
constexpr Stage kLast<Stage> = Stage::established;
template <>
constexpr Reason kLast<Reason> = Reason::notInstalled;
template <>
constexpr Direction kLast<Direction> = Direction::outbound;

// Each structure says its fields once, for writing and for reading.
template <class Archive>
void fields(Archive &archive, Timing &timing) {
  archive(timing.firstRetry);
  archive(timing.tries);
  archive(timing.refusalGrace);
  archive(timing.connectedWait);
  archive(timing.keepAlive);
  archive(timing.overlap);
  archive(timing.answerMemory);
  archive(timing.rekeyRetry);
  archive(timing.deadPeerRetry);
  archive(timing.deadPeerTries);
}

template <class Archive>
void fields(Archive &archive, Identification &identification) {
  archive(identification.type);
  archive(identification.protocol);
  archive(identification.port);
  archive(identification.data);
}

template <class Archive>
void fields(Archive &archive, Plan &plan) {
  archive(plan.local);
  archive(plan.localPort);
  archive(plan.remote);
  archive(plan.flowLocalPort);
  archive(plan.flowRemotePort);
  archive(plan.otherFlowLocalPort);
  archive(plan.identity);
  archive(plan.peerIdentity);
  archive(plan.ike);
  archive(plan.esp);
  archive(plan.aggressive);
  archive(plan.startOn4500);
  archive(plan.forceEncapsulation);
  archive(plan.initialContact);
  archive(plan.ikeLifetime);
  archive(plan.espLifetime);
  archive(plan.deadPeerDelay);
  archive(plan.timing);
}

template <class Archive>
void fields(Archive &archive, IKEStart &start) {
  archive(start.plan);
  archive(start.presharedKey);
}
template <class Archive>
void fields(Archive &archive, IKEAllocated &allocated) {
  archive(allocated.pair);
  archive(allocated.spi);
}
template <class Archive>
void fields(Archive &archive, IKEInstalled &installed) {
  archive(installed.pair);
  archive(installed.direction);
}
template <class Archive>
void fields(Archive &archive, IKENotInstalled &missing) {
  archive(missing.pair);
}
template <class Archive>
void fields(Archive &, IKEStop &) {}

template <class Archive>
void fields(Archive &archive, StageReached &reached) {
  archive(reached.stage);
}
template <class Archive>
void fields(Archive &archive, NeedSPI &need) {
  archive(need.pair);
}
template <class Archive>
void fields(Archive &archive, InstallState &state) {
  archive(state.pair);
  archive(state.direction);
  archive(state.spi);
  archive(state.algorithms);
  archive(state.cipherKey);
  archive(state.integrityKey);
  archive(state.encapsulated);
  archive(state.lifetime);
}
template <class Archive>
void fields(Archive &archive, RemoveStates &states) {
  archive(states.pair);
  archive(states.inboundSPI);
  archive(states.outboundSPI);
}
template <class Archive>
void fields(Archive &archive, Established &established) {
  archive(established.ike);
  archive(established.esp);
  archive(established.encapsulated);
  archive(established.flowLocalPort);
  archive(established.roundTrip);
}
template <class Archive>
void fields(Archive &archive, Replaced &replaced) {
  archive(replaced.pair);
}
template <class Archive>
void fields(Archive &archive, Refused &refused) {
  archive(refused.stage);
  archive(refused.reason);
  archive(refused.notification);
  archive(refused.detail);
  archive(refused.certificateRequested);
}
template <class Archive>
void fields(Archive &archive, Lost &lost) {
  archive(lost.byServer);
  archive(lost.reason);
  archive(lost.detail);
}
template <class Archive>
void fields(Archive &, Stopped &) {}

class Writer {
 public:
  explicit Writer(std::size_t type) { bytes_ = {kVersion, static_cast<std::uint8_t>(type)}; }
  Bytes take() { return std::move(bytes_); }

  template <class Value>
  void operator()(Value &value) {
    if constexpr (std::is_enum_v<Value>)
      number(static_cast<std::uint32_t>(value));
    else if constexpr (std::is_integral_v<Value>)
      number(value);
    else
      fields(*this, value);
  }
  template <class Rep, class Period>
  void operator()(std::chrono::duration<Rep, Period> &duration) {
    number(static_cast<std::int64_t>(duration.count()));
  }
  void operator()(IPv4Bytes &address) { append(bytes_, address); }
  void operator()(Bytes &data) { block(data); }
  void operator()(std::string &text) {
    text.resize(std::min(text.size(), kLargestIKEText));
    block({reinterpret_cast<const std::uint8_t *>(text.data()), text.size()});
  }
  void operator()(Secret &secret) { block(secret.bytes()); }
  template <class Value>
  void operator()(std::optional<Value> &value) {
    number(value.has_value());
    if (value) (*this)(*value);
  }
  template <class Proposal>
  void operator()(std::vector<Proposal> &proposals) {
    number(static_cast<std::uint32_t>(proposals.size()));
    for (Proposal &proposal : proposals) (*this)(proposal);
  }
  void operator()(IKEProposal &proposal) { write(proposal.text()); }
  void operator()(ESPProposal &proposal) { write(proposal.text()); }

 private:
  template <class Number>
  void number(Number value) {
    const std::size_t at = bytes_.size();
    bytes_.resize(at + sizeof value);
    std::memcpy(&bytes_[at], &value, sizeof value);
  }
  void block(View data) {
    number(static_cast<std::uint32_t>(data.size()));
    append(bytes_, data);
  }
  void write(std::string text) { (*this)(text); }

  Bytes bytes_;
};

// Once something is wrong everything is.
class Reader {
 public:
  explicit Reader(View fields) : rest_(fields) {}
  bool isRight() const { return right_ && rest_.empty(); }

  template <class Value>
  void operator()(Value &value) {
    if constexpr (std::is_enum_v<Value>) {
      std::uint32_t read = 0;
      number(read);
      right_ = right_ && read <= static_cast<std::uint32_t>(kLast<Value>);
      if (right_) value = static_cast<Value>(read);
    } else if constexpr (std::is_same_v<Value, bool>) {
      std::uint8_t read = 0;
      number(read);
      right_ = right_ && read <= 1;
      value = read == 1;
    } else if constexpr (std::is_integral_v<Value>) {
      number(value);
    } else {
      fields(*this, value);
    }
  }
  template <class Rep, class Period>
  void operator()(std::chrono::duration<Rep, Period> &duration) {
    constexpr std::int64_t kLongest = 1'000'000'000;
    std::int64_t count = 0;
    number(count);
    right_ = right_ && count >= 0 && count <= kLongest;
    if (right_) duration = std::chrono::duration<Rep, Period>(count);
  }
  void operator()(IPv4Bytes &address) {
    const View bytes = take(address.size());
    std::ranges::copy(bytes, address.begin());
  }
  void operator()(Bytes &data) { data = copyOf(block()); }
  void operator()(std::string &text) {
    const View bytes = block();
    text.assign(bytes.begin(), bytes.end());
  }
  void operator()(Secret &secret) { secret = Secret(block()); }
  template <class Value>
  void operator()(std::optional<Value> &value) {
    bool there = false;
    (*this)(there);
    if (!there) return;
    value.emplace();
    (*this)(*value);
  }
  template <class Proposal>
  void operator()(std::vector<Proposal> &proposals) {
    std::uint32_t count = 0;
    number(count);
    right_ = right_ && count > 0 && count <= kMaximumProposals;
    proposals.clear();
    for (std::uint32_t i = 0; i < count && right_; ++i) (*this)(proposals.emplace_back());
  }
  void operator()(IKEProposal &proposal) { parse(proposal, parseIKEProposals); }
  void operator()(ESPProposal &proposal) { parse(proposal, parseESPProposals); }

 private:
  View take(std::size_t size) {
    right_ = right_ && size <= rest_.size();
    if (!right_) return {};
    const View taken = rest_.first(size);
    rest_ = rest_.subspan(size);
    return taken;
  }
  template <class Number>
  void number(Number &value) {
    const View bytes = take(sizeof value);
    if (right_) std::memcpy(&value, bytes.data(), sizeof value);
  }
  View block() {
    std::uint32_t size = 0;
    number(size);
    right_ = right_ && size <= kLargestIKEText;
    return take(right_ ? size : 0);
  }
  template <class Proposal, class Parse>
  void parse(Proposal &proposal, Parse parseAll) {
    std::string text;
    (*this)(text);
    if (!right_) return;
    const auto parsed = parseAll({text});
    right_ = parsed && parsed->size() == 1;
    if (right_) proposal = parsed->front();
  }

  View rest_;
  bool right_ = true;
};

template <class Message>
Bytes encodeAny(const Message &message) {
  Writer writer(message.index());
  std::visit(
      [&writer](auto copy) {
        if constexpr (!std::is_empty_v<decltype(copy)>) fields(writer, copy);
      },
      message);
  return writer.take();
}

Error malformed(std::string what) { return {"vpnctl-ike", 0, std::move(what)}; }

template <class Message, std::size_t index = 0>
Result<Message> decodeFields(std::size_t type, View bytes) {
  if constexpr (index == std::variant_size_v<Message>) {
    return malformed("a record of the unknown type " + std::to_string(type));
  } else {
    if (type != index) return decodeFields<Message, index + 1>(type, bytes);
    std::variant_alternative_t<index, Message> message;
    Reader reader(bytes);
    if constexpr (!std::is_empty_v<decltype(message)>) fields(reader, message);
    if (!reader.isRight()) return malformed("a malformed record of type " + std::to_string(type));
    return Message(std::move(message));
  }
}

template <class Message>
Result<Message> decodeAny(View record) {
  if (record.size() < 2 || record.size() > kLargestIKERecord) return malformed("a record of an impossible size");
  if (record[0] != kVersion) return malformed("version " + std::to_string(record[0]) + " of the protocol");
  return decodeFields<Message>(record[1], record.subspan(2));
}

}  // namespace

Bytes encode(const IKEOrder &order) { return encodeAny(order); }
Bytes encode(const IKEReport &report) { return encodeAny(report); }
Result<IKEOrder> decodeIKEOrder(std::span<const std::uint8_t> record) { return decodeAny<IKEOrder>(record); }
Result<IKEReport> decodeIKEReport(std::span<const std::uint8_t> record) { return decodeAny<IKEReport>(record); }

}  // namespace helper
