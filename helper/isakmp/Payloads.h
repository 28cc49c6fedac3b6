// The chain of payloads after a message's header (RFC 2408, section 3.2).
//
// Usual sequence: decode() what arrived, then take the payloads apart that the exchange expects, each with its own
// decoder. For writing: add() them in order to a PayloadWriter.
//
// Thread rule: as plain values.

#pragma once

#include <initializer_list>
#include <optional>

#include "foundation/Result.h"
#include "helper/isakmp/Bytes.h"
#include "helper/isakmp/Numbers.h"

namespace helper::isakmp {

struct Payload {
  PayloadType type = PayloadType::none;
  View body;  // without the generic header; of the caller's bytes
};

class PayloadChain {
 public:
  static constexpr std::size_t kMost = 32;

  enum class Padding { none, allowed };  // what was encrypted is filled up to whole blocks

  // An error for a chain that is not whole, has a payload that we do not know, or has one twice that may be there once.
  static vpnctl::Result<PayloadChain> decode(PayloadType first, View bytes, Padding padding);

  const std::vector<Payload> &payloads() const { return payloads_; }
  // Without padding.
  View bytes() const { return bytes_; }
  // What comes after the first payload.
  View rest() const;
  // The first of TYPE.
  std::optional<View> find(PayloadType type) const;
  std::vector<View> all(PayloadType type) const;
  // An error when a payload is missing, or is there that is neither in REQUIRED nor in ALLOWED.
  vpnctl::Status expect(std::initializer_list<PayloadType> required, std::initializer_list<PayloadType> allowed) const;

 private:
  std::vector<Payload> payloads_;
  View bytes_;
};

class PayloadWriter {
 public:
  void add(PayloadType type, View body);
  // All of MORE, behind what there is.
  void add(const PayloadWriter &more);
  PayloadType first() const { return first_; }
  const Bytes &bytes() const { return bytes_; }

 private:
  PayloadType first_ = PayloadType::none;
  std::size_t last_ = 0;  // where the last payload begins
  Bytes bytes_;
};

}  // namespace helper::isakmp
