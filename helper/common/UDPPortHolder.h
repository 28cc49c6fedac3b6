// Who holds a UDP port of this machine, for sentences that name a stranger.

#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace helper {

// A name for people, "xl2tpd (process 4711)", of a process of this network that has a UDP socket (IPv4 or IPv6) bound
// to PORT. None when nobody has, or when it cannot be seen: a socket of the kernel's, a process elsewhere. Blocks for
// as long as a walk over PROC takes.
std::optional<std::string> udpPortHolder(std::uint16_t port, const std::string &proc = "/proc");

// Whether PROC shows a UDP socket bound to PORT, whoever has it. Anybody may see that.
bool isUDPPortShown(std::uint16_t port, const std::string &proc = "/proc");

// Whether a socket could be bound to PORT on all addresses; true also when that cannot be tried.
bool isUDPPortFree(std::uint16_t port);

}  // namespace helper
