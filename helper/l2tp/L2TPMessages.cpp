#include "helper/l2tp/L2TPMessages.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <optional>
#include <type_traits>

namespace helper::l2tp {

namespace {

constexpr std::size_t kHeaderSize = 12;
// Bits of a header's first word: control message, length, sequence numbers and offset present; the version.
constexpr std::uint16_t kControl = 0x8000;
constexpr std::uint16_t kHasLength = 0x4000;
constexpr std::uint16_t kHasSequence = 0x0800;
constexpr std::uint16_t kHasOffset = 0x0200;
constexpr std::uint16_t kVersionMask = 0x000f;
constexpr std::uint16_t kVersion = 2;

constexpr std::size_t kAVPHeaderSize = 6;
constexpr std::uint16_t kMandatory = 0x8000;
constexpr std::uint16_t kHidden = 0x4000;
constexpr std::uint16_t kReserved = 0x3c00;
constexpr std::uint16_t kLengthMask = 0x03ff;
constexpr std::size_t kLongestText = 200;

// Section 4.4: the attributes that we read or write, and the last of those there are.
enum Attribute : std::uint16_t {
  kMessageType = 0,
  kResultCode = 1,
  kProtocolVersionAttribute = 2,
  kFramingCapabilities = 3,
  kBearerCapabilities = 4,
  kHostName = 7,
  kAssignedTunnelID = 9,
  kReceiveWindowSize = 10,
  kChallenge = 11,
  kAssignedSessionID = 14,
  kCallSerialNumber = 15,
  kFramingType = 19,
  kConnectSpeed = 24,
  kUnassigned = 20,
  kLastAttribute = 39,
};

// Section 3.2.
template <class T>
constexpr std::uint16_t kTypeOf = 0;
template <>
constexpr std::uint16_t kTypeOf<SCCRQ> = 1;
template <>
constexpr std::uint16_t kTypeOf<SCCRP> = 2;
template <>
constexpr std::uint16_t kTypeOf<SCCCN> = 3;
template <>
constexpr std::uint16_t kTypeOf<StopCCN> = 4;
template <>
constexpr std::uint16_t kTypeOf<Hello> = 6;
template <>
constexpr std::uint16_t kTypeOf<ICRQ> = 10;
template <>
constexpr std::uint16_t kTypeOf<ICRP> = 11;
template <>
constexpr std::uint16_t kTypeOf<ICCN> = 12;
template <>
constexpr std::uint16_t kTypeOf<CDN> = 14;

vpnctl::Error malformed(int code, std::string message) { return {"L2TP", code, std::move(message)}; }

void append16(std::vector<std::uint8_t> &out, std::uint16_t value) {
  out.push_back(static_cast<std::uint8_t>(value >> 8));
  out.push_back(static_cast<std::uint8_t>(value));
}

std::uint16_t read16(std::span<const std::uint8_t> bytes) {
  return static_cast<std::uint16_t>(bytes[0] << 8 | bytes[1]);
}

class Writer {
 public:
  explicit Writer(std::vector<std::uint8_t> &out) : out_(out) {}
  void avp(Attribute attribute, std::uint16_t value) {
    open(attribute, 2);
    append16(out_, value);
  }
  void avp(Attribute attribute, std::uint32_t value) {
    open(attribute, 4);
    append16(out_, static_cast<std::uint16_t>(value >> 16));
    append16(out_, static_cast<std::uint16_t>(value));
  }
  void avp(Attribute attribute, const std::string &text) {
    const std::size_t size = std::min(text.size(), kLongestText);
    if (size == 0) return;
    open(attribute, size);
    out_.insert(out_.end(), text.begin(), text.begin() + static_cast<std::ptrdiff_t>(size));
  }
  void avp(Attribute attribute, const std::vector<std::uint8_t> &bytes) {
    if (bytes.empty()) return;
    open(attribute, bytes.size());
    out_.insert(out_.end(), bytes.begin(), bytes.end());
  }
  void avp(Attribute attribute, const ResultCode &result) {
    const std::size_t size = std::min(result.message.size(), kLongestText);
    open(attribute, 4 + size);
    append16(out_, result.result);
    append16(out_, result.error);
    out_.insert(out_.end(), result.message.begin(), result.message.begin() + static_cast<std::ptrdiff_t>(size));
  }
  void assigned(Attribute attribute, std::uint16_t value) { avp(attribute, value); }
  // The type says of itself whether it is mandatory; everything else that we send is.
  void type(std::uint16_t value, bool mandatory) {
    append16(out_, static_cast<std::uint16_t>((mandatory ? kMandatory : 0) | (kAVPHeaderSize + 2)));
    append16(out_, 0);
    append16(out_, kMessageType);
    append16(out_, value);
  }

 private:
  void open(Attribute attribute, std::size_t size) {
    append16(out_, static_cast<std::uint16_t>(kMandatory | (kAVPHeaderSize + size)));
    append16(out_, 0);  // no vendor's
    append16(out_, attribute);
  }
  std::vector<std::uint8_t> &out_;
};

// One attribute-value pair as it lies in a body.
struct AVP {
  std::uint16_t flags = 0;
  std::uint16_t vendor = 0;
  std::uint16_t attribute = 0;
  std::span<const std::uint8_t> value;

  bool mandatory() const { return (flags & kMandatory) != 0; }
  bool hidden() const { return (flags & kHidden) != 0; }
  // Reserved bits are for a later day, and make their pair one that we do not know (section 4.1).
  bool known() const {
    return vendor == 0 && (flags & kReserved) == 0 && attribute <= kLastAttribute && attribute != kUnassigned;
  }
};

vpnctl::Result<std::vector<AVP>> pairsOf(std::span<const std::uint8_t> body) {
  std::vector<AVP> pairs;
  while (!body.empty()) {
    if (body.size() < kAVPHeaderSize) return malformed(kErrorLength, "a message that ends within an attribute");
    AVP pair;
    const std::uint16_t first = read16(body);
    const std::size_t length = first & kLengthMask;
    if (length < kAVPHeaderSize || length > body.size())
      return malformed(kErrorLength, "an attribute with the impossible length " + std::to_string(length));
    pair.flags = static_cast<std::uint16_t>(first & ~kLengthMask);
    pair.vendor = read16(body.subspan(2));
    pair.attribute = read16(body.subspan(4));
    pair.value = body.subspan(kAVPHeaderSize, length - kAVPHeaderSize);
    pairs.push_back(pair);
    body = body.subspan(length);
  }
  return pairs;
}

// The attributes by name; what is missing keeps the value that it has. The first thing that is wrong is kept.
class Reader {
 public:
  explicit Reader(const std::vector<AVP> &pairs) : pairs_(pairs) {}
  void avp(Attribute attribute, std::uint16_t &value) {
    if (const AVP *pair = find(attribute, 2, 2)) value = read16(pair->value);
  }
  void avp(Attribute attribute, std::uint32_t &value) {
    if (const AVP *pair = find(attribute, 4, 4))
      value = std::uint32_t{read16(pair->value)} << 16 | read16(pair->value.subspan(2));
  }
  void avp(Attribute attribute, std::string &text) {
    if (const AVP *pair = find(attribute, 0, kLengthMask)) text = plain(pair->value);
  }
  void avp(Attribute attribute, std::vector<std::uint8_t> &bytes) {
    if (const AVP *pair = find(attribute, 1, kLengthMask)) bytes.assign(pair->value.begin(), pair->value.end());
  }
  void avp(Attribute attribute, ResultCode &result) {
    const AVP *pair = find(attribute, 2, kLengthMask);
    if (pair == nullptr) return;
    result.result = read16(pair->value);
    if (pair->value.size() < 4) return;
    result.error = read16(pair->value.subspan(2));
    result.message = plain(pair->value.subspan(4));
  }
  // An id that the sender gave: there must be one, and it is not 0.
  void assigned(Attribute attribute, std::uint16_t &value) {
    value = 0;
    avp(attribute, value);
    if (value == 0 && !error_) error_ = malformed(kErrorValue, "no id of its own");
  }
  const std::optional<vpnctl::Error> &error() const { return error_; }

 private:
  const AVP *find(Attribute attribute, std::size_t least, std::size_t most) {
    const auto pair =
        std::find_if(pairs_.begin(), pairs_.end(), [&](const AVP &p) { return p.attribute == attribute; });
    if (pair == pairs_.end()) return nullptr;
    if (pair->value.size() >= least && pair->value.size() <= most) return &*pair;
    if (!error_) error_ = malformed(kErrorLength, "attribute " + std::to_string(attribute) + " with the wrong length");
    return nullptr;
  }
  static std::string plain(std::span<const std::uint8_t> bytes) {
    std::string text;
    for (const std::uint8_t byte : bytes.first(std::min(bytes.size(), kLongestText)))
      text += byte >= ' ' && byte <= '~' ? static_cast<char>(byte) : '?';
    return text;
  }

  const std::vector<AVP> &pairs_;
  std::optional<vpnctl::Error> error_;
};

// The attributes of each message, once for both directions.
struct Fields {
  template <class Side, class M>
  static void of(Side &side, M &m) {
    using T = std::remove_const_t<M>;
    if constexpr (std::is_same_v<T, SCCRQ>) {
      side.avp(kProtocolVersionAttribute, m.version);
      side.avp(kFramingCapabilities, m.framingCapabilities);
      side.avp(kBearerCapabilities, m.bearerCapabilities);
      side.avp(kHostName, m.hostName);
      side.assigned(kAssignedTunnelID, m.tunnelID);
      side.avp(kReceiveWindowSize, m.window);
    } else if constexpr (std::is_same_v<T, SCCRP>) {
      side.avp(kProtocolVersionAttribute, m.version);
      side.avp(kFramingCapabilities, m.framingCapabilities);
      side.avp(kHostName, m.hostName);
      side.assigned(kAssignedTunnelID, m.tunnelID);
      side.avp(kReceiveWindowSize, m.window);
      side.avp(kChallenge, m.challenge);
    } else if constexpr (std::is_same_v<T, StopCCN>) {
      side.avp(kAssignedTunnelID, m.tunnelID);
      side.avp(kResultCode, m.result);
    } else if constexpr (std::is_same_v<T, ICRQ>) {
      side.assigned(kAssignedSessionID, m.sessionID);
      side.avp(kCallSerialNumber, m.serialNumber);
    } else if constexpr (std::is_same_v<T, ICRP>) {
      side.assigned(kAssignedSessionID, m.sessionID);
    } else if constexpr (std::is_same_v<T, ICCN>) {
      side.avp(kConnectSpeed, m.speed);
      side.avp(kFramingType, m.framingType);
    } else if constexpr (std::is_same_v<T, CDN>) {
      side.avp(kResultCode, m.result);
      side.avp(kAssignedSessionID, m.sessionID);
    } else {
      static_assert(std::is_same_v<T, SCCCN> || std::is_same_v<T, Hello>);
    }
  }
};

template <class M>
vpnctl::Result<Message> decodeAs(const std::vector<AVP> &pairs) {
  M message;
  Reader reader(pairs);
  Fields::of(reader, message);
  if (reader.error()) return *reader.error();
  return Message(std::move(message));
}

template <class... M>
vpnctl::Result<Message> decodeOneOf(const OtherMessage &other, const std::vector<AVP> &pairs) {
  vpnctl::Result<Message> result{Message(other)};
  // Stops at the first whose type matches.
  static_cast<void>(((other.type == kTypeOf<M> && (result = decodeAs<M>(pairs), true)) || ...));
  return result;
}

}  // namespace

// Types 0, 5 and 13 are reserved.
bool OtherMessage::known() const { return type >= 1 && type <= 16 && type != 5 && type != 13; }

std::vector<std::uint8_t> encode(const Header &header, std::span<const std::uint8_t> body) {
  std::vector<std::uint8_t> bytes;
  bytes.reserve(kHeaderSize + body.size());
  append16(bytes, kControl | kHasLength | kHasSequence | kVersion);
  append16(bytes, static_cast<std::uint16_t>(kHeaderSize + body.size()));
  append16(bytes, header.tunnelID);
  append16(bytes, header.sessionID);
  append16(bytes, header.ns);
  append16(bytes, header.nr);
  bytes.insert(bytes.end(), body.begin(), body.end());
  return bytes;
}

std::vector<std::uint8_t> encodeBody(const Message &message) {
  std::vector<std::uint8_t> bytes;
  Writer writer(bytes);
  std::visit(
      [&](const auto &m) {
        using M = std::remove_cvref_t<decltype(m)>;
        if constexpr (std::is_same_v<M, OtherMessage>) {
          writer.type(m.type, m.mandatory);
        } else if constexpr (!std::is_same_v<M, ZLB>) {
          writer.type(kTypeOf<M>, true);
          Fields::of(writer, m);
        }
      },
      message);
  return bytes;
}

vpnctl::Result<Packet> decodePacket(std::span<const std::uint8_t> datagram) {
  if (datagram.size() < kHeaderSize) return malformed(kErrorLength, "a datagram shorter than its header");
  const std::uint16_t flags = read16(datagram);
  if ((flags & kVersionMask) != kVersion) return malformed(kErrorValue, "a datagram of another version of L2TP");
  if ((flags & kControl) == 0) return malformed(kErrorValue, "a datagram that is no control message");
  if ((flags & kHasLength) == 0 || (flags & kHasSequence) == 0 || (flags & kHasOffset) != 0)
    return malformed(kErrorValue, "a control message without length or sequence numbers");
  // What follows the message's own length is padding.
  const std::size_t length = read16(datagram.subspan(2));
  if (length < kHeaderSize || length > datagram.size())
    return malformed(kErrorLength, "a datagram whose length is not its own");
  return Packet{Header{read16(datagram.subspan(4)), read16(datagram.subspan(6)), read16(datagram.subspan(8)),
                       read16(datagram.subspan(10))},
                datagram.subspan(kHeaderSize, length - kHeaderSize)};
}

vpnctl::Result<Message> decodeBody(std::span<const std::uint8_t> body) {
  if (body.empty()) return Message(ZLB{});
  auto pairs = pairsOf(body);
  if (!pairs) return pairs.error();
  const AVP &first = pairs->front();
  if (!first.known() || first.attribute != kMessageType || first.hidden() || first.value.size() != 2)
    return malformed(kErrorValue, "a message that does not begin with its type");
  const OtherMessage other{read16(first.value), first.mandatory()};
  if (!other.known()) return Message(other);  // whatever it holds
  const auto strange = [](const AVP &pair) { return !pair.known() || pair.hidden(); };
  for (const AVP &pair : *pairs)
    if (strange(pair) && pair.mandatory())
      return malformed(kErrorUnknownAVP,
                       pair.known()
                           ? "attribute " + std::to_string(pair.attribute) + " hidden by a secret of L2TP's own"
                           : "attribute " + std::to_string(pair.attribute) + " of vendor " +
                                 std::to_string(pair.vendor) + ", which must be understood and is unknown");
  std::erase_if(*pairs, strange);
  return decodeOneOf<SCCRQ, SCCRP, SCCCN, StopCCN, Hello, ICRQ, ICRP, ICCN, CDN>(other, *pairs);
}

}  // namespace helper::l2tp
