// Bytes that fit through each kind of tunnel where nobody says otherwise: `mtu` of the group `ppp` in engine.conf.

#pragma once

namespace helper {

// With all headers and MPPE, the 1492 bytes that PPPoE carries.
inline constexpr int kDefaultPPTPMTU = 1448;
// With all headers, a NAT between and the longest proof of what we offer, the same.
inline constexpr int kDefaultL2TPMTU = 1400;

}  // namespace helper
