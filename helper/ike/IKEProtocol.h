// What the helper and its child vpnctl-ike say to each other, over a SOCK_SEQPACKET pair of which the child has one end
// as its standard input. One record is one message.
//
//   byte 0   the protocol's version, 1
//   byte 1   the type: the place of its structure in IKEOrder (from the helper) or IKEReport (from the child), from 0
//   then     the structure's fields, in the order in which it declares them, without anything between
//
// Both ends are built together and run on one machine, so a number has the machine's own size and byte order. An
// enumeration and the size of a list have 4 bytes, a duration 8 (its own unit), a boolean 1 (0 or 1). An IPv4 address
// is its 4 bytes. A text, a secret, and the data of an identification are 4 bytes with their size, at most 512, and
// then that. What may be missing is a boolean, and then it. A proposal is a text in the notation of the settings
// ("aes256-sha1-modp1024"); a list holds 1 to 64 of them.
//
// With Start comes a descriptor (SCM_RIGHTS): the UDP socket that speaks with the server. No other record has one.
//
//   the helper                            vpnctl-ike
//   Start, plan, secret, socket   ->
//                                 <-      StageReached        each time it gets further
//                                 <-      NeedSPI             for a pair that is about to be negotiated
//   Allocated, or NotInstalled    ->
//                                 <-      InstallState        inbound
//   Installed, or NotInstalled    ->                          only now the server hears of it
//                                 <-      InstallState        outbound
//   Installed, or NotInstalled    ->
//                                 <-      Established         the first pair; Replaced for each later one
//                                 <-      RemoveStates        of a pair that has been replaced, or did not come to be
//   Stop                          ->                          at any time after Start
//                                 <-      Refused, Lost or Stopped, the last word; then it ends
//
// From NeedSPI on all is repeated for each pair that replaces one, and several may overlap. When either end closes, the
// other ends: the child with its farewell to the server.
//
// The child speaks with strangers, so the helper believes none of its records. What is not exactly one of them is an
// error; so is a report that does not fit what was ordered (ESPPairs, IKEAssociation), and both end the child.
//
// Thread rule: none of these keeps state.

#pragma once

#include <cstdint>
#include <span>
#include <variant>

#include "foundation/Result.h"
#include "helper/isakmp/Outputs.h"

namespace helper {

// A record with everything that it may hold.
inline constexpr std::size_t kLargestIKERecord = 8192;
inline constexpr std::size_t kLargestIKEText = 512;  // bytes, of a secret, too

struct IKEStart {
  isakmp::Plan plan;
  vpnctl::Secret presharedKey;
};
struct IKEAllocated {
  isakmp::PairID pair = 0;
  std::uint32_t spi = 0;
};
struct IKEInstalled {
  isakmp::PairID pair = 0;
  isakmp::Direction direction = isakmp::Direction::inbound;
};
struct IKENotInstalled {
  isakmp::PairID pair = 0;
};
struct IKEStop {};

using IKEOrder = std::variant<IKEStart, IKEAllocated, IKEInstalled, IKENotInstalled, IKEStop>;

// What an Initiator puts out, but for what the child does by itself, and for what counted for nothing.
using IKEReport = std::variant<isakmp::StageReached, isakmp::NeedSPI, isakmp::InstallState, isakmp::RemoveStates,
                               isakmp::Established, isakmp::Replaced, isakmp::Refused, isakmp::Lost, isakmp::Stopped>;

isakmp::Bytes encode(const IKEOrder &order);
isakmp::Bytes encode(const IKEReport &report);

// The error is a sentence part: "a record of the unknown type 9".
vpnctl::Result<IKEOrder> decodeIKEOrder(std::span<const std::uint8_t> record);
vpnctl::Result<IKEReport> decodeIKEReport(std::span<const std::uint8_t> record);

}  // namespace helper
