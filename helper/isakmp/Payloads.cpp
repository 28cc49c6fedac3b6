#include "helper/isakmp/Payloads.h"

#include <algorithm>
#include <string>

#include "helper/isakmp/Header.h"

namespace helper::isakmp {

namespace {

constexpr std::size_t kGenericHeaderSize = 4;

enum class Count { unknown, once, often };

// Certificate requests and vendor ids are not for us, however many come; the others often come in pairs.
Count countOf(PayloadType type) {
  switch (type) {
    case PayloadType::securityAssociation:
    case PayloadType::keyExchange:
    case PayloadType::certificate:
    case PayloadType::hash:
    case PayloadType::signature:
    case PayloadType::nonce:
    case PayloadType::deletion:
      return Count::once;
    case PayloadType::identification:
    case PayloadType::certificateRequest:
    case PayloadType::notification:
    case PayloadType::vendorID:
    case PayloadType::natDetection:
    case PayloadType::natOriginalAddress:
    case PayloadType::natDetectionDraft:
    case PayloadType::natOriginalAddressDraft:
      return Count::often;
    case PayloadType::none:
      break;
  }
  return Count::unknown;
}

std::string named(PayloadType type) { return "payload type " + std::to_string(static_cast<int>(type)); }

}  // namespace

vpnctl::Result<PayloadChain> PayloadChain::decode(PayloadType first, View bytes, Padding padding) {
  PayloadChain chain;
  View left = bytes;
  for (PayloadType type = first; type != PayloadType::none;) {
    if (chain.payloads_.size() == kMost) return malformed("too many payloads");
    const Count count = countOf(type);
    if (count == Count::unknown) return malformed("unknown " + named(type));
    if (count == Count::once && chain.find(type)) return malformed("twice " + named(type));
    if (left.size() < kGenericHeaderSize) return malformed("ends before a payload");
    const std::size_t length = read16(left.subspan(2));
    if (left[1] != 0) return malformed("a reserved byte that is not 0");
    if (length < kGenericHeaderSize || length > left.size()) return malformed("a payload with an impossible length");
    chain.payloads_.push_back({type, left.subspan(kGenericHeaderSize, length - kGenericHeaderSize)});
    type = static_cast<PayloadType>(left[0]);
    left = left.subspan(length);
  }
  if (chain.payloads_.empty()) return malformed("no payload");
  if (padding == Padding::none && !left.empty()) return malformed("bytes after the last payload");
  chain.bytes_ = bytes.first(bytes.size() - left.size());
  return chain;
}

View PayloadChain::rest() const { return bytes_.subspan(kGenericHeaderSize + payloads_.front().body.size()); }

std::optional<View> PayloadChain::find(PayloadType type) const {
  for (const Payload &payload : payloads_)
    if (payload.type == type) return payload.body;
  return std::nullopt;
}

std::vector<View> PayloadChain::all(PayloadType type) const {
  std::vector<View> bodies;
  for (const Payload &payload : payloads_)
    if (payload.type == type) bodies.push_back(payload.body);
  return bodies;
}

vpnctl::Status PayloadChain::expect(std::initializer_list<PayloadType> required,
                                    std::initializer_list<PayloadType> allowed) const {
  for (const PayloadType type : required)
    if (!find(type)) return malformed("without " + named(type));
  const auto isIn = [](std::initializer_list<PayloadType> list, PayloadType type) {
    return std::find(list.begin(), list.end(), type) != list.end();
  };
  for (const Payload &payload : payloads_)
    if (!isIn(required, payload.type) && !isIn(allowed, payload.type))
      return malformed("unexpected " + named(payload.type));
  return {};
}

void PayloadWriter::add(PayloadType type, View body) {
  if (bytes_.empty())
    first_ = type;
  else
    bytes_[last_] = static_cast<std::uint8_t>(type);
  last_ = bytes_.size();
  append8(bytes_, 0);
  append8(bytes_, 0);
  append16(bytes_, kGenericHeaderSize + body.size());
  append(bytes_, body);
}

void PayloadWriter::add(const PayloadWriter &more) {
  if (more.bytes_.empty()) return;
  if (bytes_.empty())
    first_ = more.first_;
  else
    bytes_[last_] = static_cast<std::uint8_t>(more.first_);
  last_ = bytes_.size() + more.last_;
  append(bytes_, more.bytes_);
}

}  // namespace helper::isakmp
