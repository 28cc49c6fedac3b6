#include "helper/isakmp/SecurityAssociation.h"

#include <limits>

#include "helper/isakmp/Header.h"

namespace helper::isakmp {

namespace {

constexpr std::uint32_t kIdentityOnly = 1;  // the only situation there is
constexpr std::size_t kMostProposals = 16;
constexpr std::size_t kMostTransforms = 64;
constexpr std::size_t kMostAttributes = 16;
constexpr std::size_t kLongestSPI = 16;
constexpr std::uint8_t kMoreProposals = 2;
constexpr std::uint8_t kMoreTransforms = 3;
constexpr std::uint16_t kShortForm = 0x8000;

// One proposal or transform: both begin with what follows, 0 and their length. LEFT loses it.
struct Piece {
  std::uint8_t next = 0;
  View body;  // after these
};
vpnctl::Result<Piece> takePiece(View &left, std::size_t fixed, std::uint8_t more, const char *name) {
  const std::size_t least = 4 + fixed;
  if (left.size() < least) return malformed(std::string("ends within a ") + name);
  const std::size_t length = read16(left.subspan(2));
  if (length < least || length > left.size()) return malformed(std::string("the impossible length of a ") + name);
  if (left[1] != 0) return malformed("a reserved byte that is not 0");
  if (left[0] != 0 && left[0] != more) return malformed(std::string("what follows a ") + name + " is none");
  const Piece piece{left[0], left.subspan(4, length - 4)};
  left = left.subspan(length);
  // "The last" is said of the last one and of no other.
  if ((piece.next == 0) != left.empty()) return malformed(std::string("the last ") + name + " is not the last");
  return piece;
}

vpnctl::Result<Transform> decodeTransform(View body) {
  if (read16(body.subspan(2)) != 0) return malformed("a reserved byte that is not 0");
  auto attributes = decodeAttributes(body.subspan(4));
  if (!attributes) return attributes.error();
  return Transform{body[0], body[1], std::move(*attributes)};
}

vpnctl::Result<Proposal> decodeProposal(View body) {
  Proposal proposal{body[0], body[1], {}, {}};
  const std::size_t spiSize = body[2];
  const std::size_t count = body[3];
  if (count == 0 || count > kMostTransforms) return malformed("an impossible number of transforms");
  if (spiSize > kLongestSPI || spiSize > body.size() - 4) return malformed("an SPI of an impossible length");
  proposal.spi = copyOf(body.subspan(4, spiSize));
  View left = body.subspan(4 + spiSize);
  while (!left.empty()) {
    auto piece = takePiece(left, 4, kMoreTransforms, "transform");
    if (!piece) return piece.error();
    auto transform = decodeTransform(piece->body);
    if (!transform) return transform.error();
    proposal.transforms.push_back(std::move(*transform));
    if (proposal.transforms.size() > count) break;
  }
  if (proposal.transforms.size() != count) return malformed("another number of transforms than it says");
  return proposal;
}

}  // namespace

vpnctl::Result<std::vector<Attribute>> decodeAttributes(View bytes) {
  std::vector<Attribute> attributes;
  while (!bytes.empty()) {
    if (attributes.size() == kMostAttributes) return malformed("too many attributes");
    if (bytes.size() < 4) return malformed("ends within an attribute");
    const std::uint16_t type = read16(bytes);
    std::uint64_t value = read16(bytes.subspan(2));
    std::size_t size = 4;
    if ((type & kShortForm) == 0) {
      const auto length = static_cast<std::size_t>(value);
      size += length;
      if (size > bytes.size()) return malformed("ends within an attribute");
      if (length == 0 || length > sizeof value) return malformed("an attribute of a strange length");
      value = 0;
      for (const std::uint8_t byte : bytes.subspan(4, length)) value = value << 8 | byte;
    }
    attributes.push_back({static_cast<std::uint16_t>(type & ~kShortForm), value});
    bytes = bytes.subspan(size);
  }
  return attributes;
}

Bytes encode(const std::vector<Attribute> &attributes) {
  Bytes bytes;
  for (const Attribute &attribute : attributes) {
    if (attribute.value <= std::numeric_limits<std::uint16_t>::max()) {
      append16(bytes, attribute.type | kShortForm);
      append16(bytes, attribute.value);
      continue;
    }
    const bool isLong = attribute.value > std::numeric_limits<std::uint32_t>::max();
    append16(bytes, attribute.type);
    append16(bytes, isLong ? 8 : 4);
    if (isLong) append32(bytes, static_cast<std::uint32_t>(attribute.value >> 32));
    append32(bytes, static_cast<std::uint32_t>(attribute.value));
  }
  return bytes;
}

vpnctl::Result<SecurityAssociation> decodeSecurityAssociation(View body) {
  if (body.size() < 8) return malformed("an association shorter than its fixed part");
  if (read32(body) != kIPSecDOI) return malformed("an association of another domain");
  if (read32(body.subspan(4)) != kIdentityOnly) return malformed("an association in a strange situation");
  SecurityAssociation association;
  View left = body.subspan(8);
  if (left.empty()) return malformed("an association without a proposal");
  while (!left.empty()) {
    if (association.proposals.size() == kMostProposals) return malformed("too many proposals");
    auto piece = takePiece(left, 4, kMoreProposals, "proposal");
    if (!piece) return piece.error();
    auto proposal = decodeProposal(piece->body);
    if (!proposal) return proposal.error();
    association.proposals.push_back(std::move(*proposal));
  }
  return association;
}

namespace {

void encodeTransform(Bytes &out, const Transform &transform, bool last) {
  const Bytes attributes = encode(transform.attributes);
  append8(out, last ? 0 : kMoreTransforms);
  append8(out, 0);
  append16(out, 8 + attributes.size());
  append8(out, transform.number);
  append8(out, transform.id);
  append16(out, 0);
  append(out, attributes);
}

void encodeProposal(Bytes &out, const Proposal &proposal, bool last) {
  Bytes transforms;
  for (const Transform &transform : proposal.transforms)
    encodeTransform(transforms, transform, &transform == &proposal.transforms.back());
  append8(out, last ? 0 : kMoreProposals);
  append8(out, 0);
  append16(out, 8 + proposal.spi.size() + transforms.size());
  append8(out, proposal.number);
  append8(out, proposal.protocol);
  append8(out, static_cast<std::uint8_t>(proposal.spi.size()));
  append8(out, static_cast<std::uint8_t>(proposal.transforms.size()));
  append(out, proposal.spi);
  append(out, transforms);
}

}  // namespace

Bytes encode(const SecurityAssociation &association) {
  Bytes bytes;
  append32(bytes, kIPSecDOI);
  append32(bytes, kIdentityOnly);
  for (const Proposal &proposal : association.proposals)
    encodeProposal(bytes, proposal, &proposal == &association.proposals.back());
  return bytes;
}

}  // namespace helper::isakmp
