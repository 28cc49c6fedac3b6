// Identifiers of what is stored: random UUIDs in upper case.

#pragma once

#include <string>
#include <string_view>

namespace vpnctl {

// A new one. The process ends where the system has no random numbers to give, which is no place to make keys and names
// in.
std::string newUUID() noexcept;
// True for exactly the form that newUUID() gives.
bool isUUID(std::string_view text);

}  // namespace vpnctl
