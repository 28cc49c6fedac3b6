#include "companions/probe/VendorNames.h"

#include <algorithm>

#include "helper/isakmp/VendorIDs.h"

namespace companions {

using helper::isakmp::Bytes;
using helper::isakmp::View;

namespace {

// Programs, and extensions that this machine does not have. Some say their version behind it.
struct Row {
  Bytes begins;
  const char *name;
};

const std::vector<Row> &rows() {
  static const std::vector<Row> kRows{
      {{0x88, 0x2f, 0xe5, 0x6d, 0x6f, 0xd2, 0x0d, 0xbc, 0x22, 0x51, 0x61, 0x3b, 0x2e, 0xbe, 0x5b, 0xeb}, "strongSwan"},
      {{0x1e, 0x2b, 0x51, 0x69, 0x05, 0x99, 0x1c, 0x7d, 0x7c, 0x96, 0xfc, 0xbf, 0xb5, 0x87, 0xe4, 0x61}, "Windows"},
      {{0x40, 0x4b, 0xf4, 0x39, 0x52, 0x2c, 0xa3, 0xf6}, "SonicWall"},
      {{0x12, 0xf5, 0xf2, 0x8c, 0x45, 0x71, 0x68, 0xa9, 0x70, 0x2d, 0x9f, 0xe2, 0x74, 0xcc, 0x01, 0x00}, "Cisco Unity"},
      {{0x09, 0x00, 0x26, 0x89, 0xdf, 0xd6, 0xb7, 0x12}, "XAUTH"},
      {{0x40, 0x48, 0xb7, 0xd5, 0x6e, 0xbc, 0xe8, 0x85, 0x25, 0xe7, 0xde, 0x7f, 0x00, 0xd6, 0xc2, 0xd3},
       "fragmentation"}};
  return kRows;
}

std::string extensionName(View vendorID) {
  using helper::isakmp::NATTraversal;
  helper::isakmp::PeerExtensions extensions;
  extensions.add(vendorID);
  if (extensions.deadPeerDetection) return "dead peer detection";
  switch (extensions.natTraversal) {
    case NATTraversal::none:
      return {};
    case NATTraversal::draft02:
      return "NAT traversal (draft 2)";
    case NATTraversal::draft03:
      return "NAT traversal (draft 3)";
    case NATTraversal::rfc3947:
      return "NAT traversal (RFC 3947)";
  }
  return {};
}

}  // namespace

std::string vendorName(View vendorID) {
  if (std::string name = extensionName(vendorID); !name.empty()) return name;
  for (const Row &row : rows())
    if (vendorID.size() >= row.begins.size() &&
        helper::isakmp::sameBytes(vendorID.first(row.begins.size()), row.begins))
      return row.name;
  return {};
}

std::vector<std::string> vendorNames(const std::vector<View> &vendorIDs) {
  std::vector<std::string> names;
  for (const View id : vendorIDs)
    if (std::string name = vendorName(id); !name.empty() && std::ranges::find(names, name) == names.end())
      names.push_back(std::move(name));
  return names;
}

}  // namespace companions
