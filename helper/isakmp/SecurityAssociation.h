// The body of a security association payload (RFC 2408, sections 3.4 to 3.6; RFC 2407, section 4.6.1): proposals, each
// with transforms, each with attributes. What they mean is the Transforms' business.
//
// Thread rule: as plain values.

#pragma once

#include "foundation/Result.h"
#include "helper/isakmp/Bytes.h"

namespace helper::isakmp {

// VALUE counts, not the form: peers write the same number in two or in four bytes.
struct Attribute {
  std::uint16_t type = 0;
  std::uint64_t value = 0;
  bool operator==(const Attribute &) const = default;
};

struct Transform {
  std::uint8_t number = 0;
  std::uint8_t id = 0;
  std::vector<Attribute> attributes;
  bool operator==(const Transform &) const = default;
};

struct Proposal {
  std::uint8_t number = 0;
  std::uint8_t protocol = 0;
  Bytes spi;
  std::vector<Transform> transforms;
  bool operator==(const Proposal &) const = default;
};

struct SecurityAssociation {
  std::vector<Proposal> proposals;
  bool operator==(const SecurityAssociation &) const = default;
};

vpnctl::Result<SecurityAssociation> decodeSecurityAssociation(View body);
Bytes encode(const SecurityAssociation &association);

// Also for the data of a notification of lifetimes.
vpnctl::Result<std::vector<Attribute>> decodeAttributes(View bytes);
Bytes encode(const std::vector<Attribute> &attributes);

}  // namespace helper::isakmp
