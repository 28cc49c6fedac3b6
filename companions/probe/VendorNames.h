// What an IKE vendor identity stands for, in words.
//
// Thread rule: none of these keeps state.

#pragma once

#include <string>
#include <vector>

#include "helper/isakmp/Bytes.h"

namespace companions {

// "NAT traversal (RFC 3947)", "strongSwan"; empty for one that we do not know.
std::string vendorName(helper::isakmp::View vendorID);

// Of those that are known, each name once, in the order in which they came.
std::vector<std::string> vendorNames(const std::vector<helper::isakmp::View> &vendorIDs);

}  // namespace companions
