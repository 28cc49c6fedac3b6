#include "helper/pptp/PPTPMessages.h"

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace helper::pptp {

namespace {

constexpr std::uint32_t kMagicCookie = 0x1A2B3C4D;
constexpr std::uint16_t kControlMessage = 1;
constexpr std::size_t kHeaderSize = 12;
constexpr std::size_t kLargestMessage = 220;  // an Incoming-Call-Request; nothing longer exists
constexpr std::size_t kNameSize = 64;
constexpr std::size_t kStatisticsSize = 128;

// Types and whole lengths of the messages we know, RFC 2637 sections 2.1 to 2.15.
template <class T>
struct Form;
template <std::uint16_t Type, std::size_t Size>
struct FormOf {
  static constexpr std::uint16_t type = Type;
  static constexpr std::size_t size = Size;
};
template <>
struct Form<StartRequest> : FormOf<1, 156> {};
template <>
struct Form<StartReply> : FormOf<2, 156> {};
template <>
struct Form<StopRequest> : FormOf<3, 16> {};
template <>
struct Form<StopReply> : FormOf<4, 16> {};
template <>
struct Form<EchoRequest> : FormOf<5, 16> {};
template <>
struct Form<EchoReply> : FormOf<6, 20> {};
template <>
struct Form<OutgoingCallRequest> : FormOf<7, 168> {};
template <>
struct Form<OutgoingCallReply> : FormOf<8, 32> {};
template <>
struct Form<CallClearRequest> : FormOf<12, 16> {};
template <>
struct Form<CallDisconnectNotify> : FormOf<13, 148> {};
template <>
struct Form<SetLinkInfo> : FormOf<15, 24> {};

class Writer {
 public:
  explicit Writer(std::vector<std::uint8_t> &out) : out_(out) {}
  void field(std::uint8_t value) { out_.push_back(value); }
  void field(std::uint16_t value) {
    out_.push_back(static_cast<std::uint8_t>(value >> 8));
    out_.push_back(static_cast<std::uint8_t>(value));
  }
  void field(std::uint32_t value) {
    field(static_cast<std::uint16_t>(value >> 16));
    field(static_cast<std::uint16_t>(value));
  }
  void name(const std::string &text) {
    const std::size_t size = std::min(text.size(), kNameSize);
    out_.insert(out_.end(), text.begin(), text.begin() + static_cast<std::ptrdiff_t>(size));
    skip(kNameSize - size);
  }
  void lengthOf(const std::string &text) { field(static_cast<std::uint16_t>(std::min(text.size(), kNameSize))); }
  void skip(std::size_t count) { out_.resize(out_.size() + count); }

 private:
  std::vector<std::uint8_t> &out_;
};

class Reader {
 public:
  explicit Reader(std::span<const std::uint8_t> in) : in_(in) {}
  void field(std::uint8_t &value) { value = take(1)[0]; }
  void field(std::uint16_t &value) {
    const auto bytes = take(2);
    value = static_cast<std::uint16_t>(bytes[0] << 8 | bytes[1]);
  }
  void field(std::uint32_t &value) {
    std::uint16_t high = 0;
    std::uint16_t low = 0;
    field(high);
    field(low);
    value = std::uint32_t{high} << 16 | low;
  }
  void name(std::string &text) {
    const auto bytes = take(kNameSize);
    text.assign(bytes.begin(), std::find(bytes.begin(), bytes.end(), std::uint8_t{0}));
  }
  // Names end at a zero byte; a length beside them says nothing more.
  void lengthOf(const std::string &) { skip(2); }
  void skip(std::size_t count) { take(count); }

 private:
  // Lengths are checked before a Reader is made: the fields of a message add up to its form's size.
  std::span<const std::uint8_t> take(std::size_t count) {
    const auto bytes = in_.first(count);
    in_ = in_.subspan(count);
    return bytes;
  }
  std::span<const std::uint8_t> in_;
};

// The fields in the order of the wire, once for both directions.
template <class Side, class M>
void startFields(Side &side, M &m) {
  side.field(m.framingCapabilities);
  side.field(m.bearerCapabilities);
  side.field(m.maximumChannels);
  side.field(m.firmware);
  side.name(m.hostName);
  side.name(m.vendor);
}
struct Fields {
  template <class Side, class M>
  static void of(Side &side, M &m) {
    using T = std::remove_const_t<M>;
    if constexpr (std::is_same_v<T, StartRequest>) {
      side.field(m.version);
      side.skip(2);
      startFields(side, m);
    } else if constexpr (std::is_same_v<T, StartReply>) {
      side.field(m.version);
      side.field(m.result);
      side.field(m.error);
      startFields(side, m);
    } else if constexpr (std::is_same_v<T, StopRequest>) {
      side.field(m.reason);
      side.skip(3);
    } else if constexpr (std::is_same_v<T, StopReply>) {
      side.field(m.result);
      side.field(m.error);
      side.skip(2);
    } else if constexpr (std::is_same_v<T, EchoRequest>) {
      side.field(m.identifier);
    } else if constexpr (std::is_same_v<T, EchoReply>) {
      side.field(m.identifier);
      side.field(m.result);
      side.field(m.error);
      side.skip(2);
    } else if constexpr (std::is_same_v<T, OutgoingCallRequest>) {
      side.field(m.callID);
      side.field(m.serialNumber);
      side.field(m.minimumSpeed);
      side.field(m.maximumSpeed);
      side.field(m.bearerType);
      side.field(m.framingType);
      side.field(m.receiveWindow);
      side.field(m.processingDelay);
      side.lengthOf(m.phoneNumber);
      side.skip(2);
      side.name(m.phoneNumber);
      side.name(m.subaddress);
    } else if constexpr (std::is_same_v<T, OutgoingCallReply>) {
      side.field(m.callID);
      side.field(m.peerCallID);
      side.field(m.result);
      side.field(m.error);
      side.field(m.cause);
      side.field(m.connectSpeed);
      side.field(m.receiveWindow);
      side.field(m.processingDelay);
      side.field(m.physicalChannel);
    } else if constexpr (std::is_same_v<T, CallClearRequest>) {
      side.field(m.callID);
      side.skip(2);
    } else if constexpr (std::is_same_v<T, CallDisconnectNotify>) {
      side.field(m.callID);
      side.field(m.result);
      side.field(m.error);
      side.field(m.cause);
      side.skip(2 + kStatisticsSize);
    } else {
      static_assert(std::is_same_v<T, SetLinkInfo>);
      side.field(m.peerCallID);
      side.skip(2);
      side.field(m.sendACCM);
      side.field(m.receiveACCM);
    }
  }
};

vpnctl::Error malformed(std::string message) { return {"PPTP", 0, std::move(message)}; }

template <class M>
vpnctl::Result<Message> decodeAs(std::span<const std::uint8_t> bytes) {
  M message;
  Reader reader(bytes.subspan(kHeaderSize));
  Fields::of(reader, message);
  return Message(std::move(message));
}

template <class... M>
struct FormsOf {
  // Each stops at the first form whose type matches. 0: a type that we do not know, of any length.
  static std::size_t sizeOf(std::uint16_t type) {
    std::size_t size = 0;
    static_cast<void>(((type == Form<M>::type && (size = Form<M>::size, true)) || ...));
    return size;
  }
  static vpnctl::Result<Message> decode(std::uint16_t type, std::span<const std::uint8_t> bytes) {
    vpnctl::Result<Message> result{Message(OtherMessage{type})};
    static_cast<void>(((type == Form<M>::type && (result = decodeAs<M>(bytes), true)) || ...));
    return result;
  }
};
using Forms = FormsOf<StartRequest, StartReply, StopRequest, StopReply, EchoRequest, EchoReply, OutgoingCallRequest,
                      OutgoingCallReply, CallClearRequest, CallDisconnectNotify, SetLinkInfo>;

struct Header {
  std::uint16_t length = 0;
  std::uint16_t kind = 0;
  std::uint32_t cookie = 0;
  std::uint16_t type = 0;
};

vpnctl::Result<Header> headerOf(std::span<const std::uint8_t> bytes) {
  Header header;
  Reader reader(bytes.first(kHeaderSize));
  reader.field(header.length);
  reader.field(header.kind);
  reader.field(header.cookie);
  reader.field(header.type);
  if (header.cookie != kMagicCookie) return malformed("a message without the protocol's magic cookie");
  if (header.kind != kControlMessage) return malformed("a message that is no control message");
  if (header.length < kHeaderSize || header.length > kLargestMessage)
    return malformed("a message with the impossible length " + std::to_string(header.length));
  const std::size_t size = Forms::sizeOf(header.type);
  if (size != 0 && size != header.length)
    return malformed("a message of type " + std::to_string(header.type) + " with the wrong length " +
                     std::to_string(header.length));
  return header;
}

}  // namespace

std::vector<std::uint8_t> encode(const Message &message) {
  std::vector<std::uint8_t> bytes;
  Writer writer(bytes);
  std::visit(
      [&](const auto &m) {
        using M = std::remove_cvref_t<decltype(m)>;
        constexpr bool other = std::is_same_v<M, OtherMessage>;
        std::uint16_t type = 0;
        std::size_t size = kHeaderSize;
        if constexpr (other) {
          type = m.type;
        } else {
          type = Form<M>::type;
          size = Form<M>::size;
        }
        bytes.reserve(size);
        writer.field(static_cast<std::uint16_t>(size));
        writer.field(kControlMessage);
        writer.field(kMagicCookie);
        writer.field(type);
        writer.skip(2);
        if constexpr (!other) Fields::of(writer, m);
      },
      message);
  return bytes;
}

vpnctl::Result<Message> decode(std::span<const std::uint8_t> bytes) {
  if (bytes.size() < kHeaderSize) return malformed("a message shorter than its header");
  const auto header = headerOf(bytes);
  if (!header) return header.error();
  if (header->length != bytes.size()) return malformed("a message whose length is not its own");
  return Forms::decode(header->type, bytes);
}

void MessageReader::append(std::span<const std::uint8_t> bytes) {
  buffer_.insert(buffer_.end(), bytes.begin(), bytes.end());
}

vpnctl::Result<std::optional<Message>> MessageReader::next() {
  if (buffer_.size() < kHeaderSize) return std::optional<Message>();
  const auto header = headerOf(buffer_);
  if (!header) return header.error();
  if (buffer_.size() < header->length) return std::optional<Message>();
  auto message = decode(std::span(buffer_).first(header->length));
  if (!message) return message.error();
  buffer_.erase(buffer_.begin(), buffer_.begin() + header->length);
  return std::optional<Message>(std::move(*message));
}

}  // namespace helper::pptp
