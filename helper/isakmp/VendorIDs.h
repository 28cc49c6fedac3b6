// Vendor id payloads: which extensions a peer has.
//
// Thread rule: as plain values.

#pragma once

#include "helper/isakmp/Bytes.h"
#include "helper/isakmp/Numbers.h"

namespace helper::isakmp {

// How NAT traversal is spoken: the drafts have numbers of their own. The later the better. Drafts before the second
// have no port of their own and are not supported.
enum class NATTraversal { none, draft02, draft03, rfc3947 };

PayloadType natDetectionPayload(NATTraversal version);
PayloadType natOriginalAddressPayload(NATTraversal version);
// The value of the mode attribute for ESP in UDP.
std::uint16_t udpTransportMode(NATTraversal version);

struct PeerExtensions {
  NATTraversal natTraversal = NATTraversal::none;  // the best of those it named
  bool deadPeerDetection = false;

  // Takes the body of one vendor id payload in. What we do not know is of no meaning.
  void add(View vendorID);
};

// The bodies of what we say of ourselves. Others are not claimed: whoever names XAUTH or fragmentation gets it.
std::vector<View> ownVendorIDs();
// As a responder: what both have.
std::vector<View> vendorIDsFor(const PeerExtensions &extensions);

}  // namespace helper::isakmp
