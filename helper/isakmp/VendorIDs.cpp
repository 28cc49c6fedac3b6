#include "helper/isakmp/VendorIDs.h"

#include <algorithm>
#include <array>

namespace helper::isakmp {

namespace {

using VendorID = std::array<std::uint8_t, 16>;

// MD5 of "RFC 3947" and of the drafts' names.
constexpr VendorID kRFC3947{0x4a, 0x13, 0x1c, 0x81, 0x07, 0x03, 0x58, 0x45,
                            0x5c, 0x57, 0x28, 0xf2, 0x0e, 0x95, 0x45, 0x2f};
constexpr VendorID kDraft03{0x7d, 0x94, 0x19, 0xa6, 0x53, 0x10, 0xca, 0x6f,
                            0x2c, 0x17, 0x9d, 0x92, 0x15, 0x52, 0x9d, 0x56};
// The second draft's name was hashed with a line feed by most, because its text was read so.
constexpr VendorID kDraft02{0x90, 0xcb, 0x80, 0x91, 0x3e, 0xbb, 0x69, 0x6e,
                            0x08, 0x63, 0x81, 0xb5, 0xec, 0x42, 0x7b, 0x1f};
constexpr VendorID kDraft02WithoutLineFeed{0xcd, 0x60, 0x46, 0x43, 0x35, 0xdf, 0x21, 0xf8,
                                           0x7c, 0xfd, 0xb2, 0xfc, 0x68, 0xb6, 0xa4, 0x48};
// RFC 3706; the last two bytes are its version.
constexpr VendorID kDeadPeerDetection{0xaf, 0xca, 0xd7, 0x13, 0x68, 0xa1, 0xf1, 0xc9,
                                      0x6b, 0x86, 0x96, 0xfc, 0x77, 0x57, 0x01, 0x00};

}  // namespace

PayloadType natDetectionPayload(NATTraversal version) {
  return version == NATTraversal::rfc3947 ? PayloadType::natDetection : PayloadType::natDetectionDraft;
}

PayloadType natOriginalAddressPayload(NATTraversal version) {
  return version == NATTraversal::rfc3947 ? PayloadType::natOriginalAddress : PayloadType::natOriginalAddressDraft;
}

std::uint16_t udpTransportMode(NATTraversal version) {
  return version == NATTraversal::rfc3947 ? phase2::kUDPTransport : phase2::kUDPTransportDraft;
}

void PeerExtensions::add(View vendorID) {
  const auto is = [&](const VendorID &known) { return sameBytes(vendorID, known); };
  NATTraversal version = NATTraversal::none;
  if (is(kRFC3947)) version = NATTraversal::rfc3947;
  if (is(kDraft03)) version = NATTraversal::draft03;
  if (is(kDraft02) || is(kDraft02WithoutLineFeed)) version = NATTraversal::draft02;
  natTraversal = std::max(natTraversal, version);
  if (vendorID.size() == kDeadPeerDetection.size() && sameBytes(vendorID.first(14), View(kDeadPeerDetection).first(14)))
    deadPeerDetection = true;
}

std::vector<View> ownVendorIDs() { return {kRFC3947, kDraft02, kDeadPeerDetection}; }

std::vector<View> vendorIDsFor(const PeerExtensions &extensions) {
  std::vector<View> ids;
  switch (extensions.natTraversal) {
    case NATTraversal::none:
      break;
    case NATTraversal::draft02:
      ids.push_back(kDraft02);
      break;
    case NATTraversal::draft03:
      ids.push_back(kDraft03);
      break;
    case NATTraversal::rfc3947:
      ids.push_back(kRFC3947);
      break;
  }
  ids.push_back(kDeadPeerDetection);
  return ids;
}

}  // namespace helper::isakmp
