// What VPN links of this program there are on this machine: put together from what their helpers have noted and what
// the kernel says. An ordinary user gets what the kernel tells everybody, and is told what else root would see.
//
// Usual sequence: linksUp(Sources::ofThisMachine()). Thread rule: none of these keeps state; nothing blocks.

#pragma once

#include <vector>

#include "companions/links/LinkState.h"
#include "companions/links/Sources.h"
#include "foundation/Result.h"

namespace companions {

// By their numbers, the oldest first. An error when the kernel does not say what everybody may know, or the journals
// cannot be read for another reason than that only root may.
vpnctl::Result<std::vector<LinkState>> linksUp(const Sources &sources);

}  // namespace companions
