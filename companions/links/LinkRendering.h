// A link's state for people, and for programs.
//
// Thread rule: none of these keeps state.

#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "companions/common/JSONLine.h"
#include "companions/links/LinkState.h"

namespace companions {

// For who asks when there is none.
inline constexpr char kNoLink[] = "No VPN link of vpnctl is up on this machine.";

// Several lines, each with its newline: the server, and below it a label and a value each. What is not known is left
// out; what only root could see is named. Moments are local time.
std::string textOf(const LinkState &link, Moment now);

// The same, exact: moments in RFC 3339's form, in UTC, bytes and packets as numbers. What is not known is left out.
JSONLine jsonOf(const LinkState &link);

// "2 d 4 h", "1 h 2 min", "4 min 10 s", "12 s"; of what is negative "0 s".
std::string durationText(std::chrono::seconds duration);
// "830 B", "1.2 KiB", "3.4 GiB".
std::string sizeText(std::uint64_t bytes);

}  // namespace companions
