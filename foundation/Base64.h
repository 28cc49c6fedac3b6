// Base64 as property lists carry it (RFC 4648 section 4).

#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace vpnctl {

// One line, padded.
std::string base64Encoded(std::span<const std::uint8_t> bytes);

// White space may stand anywhere; otherwise whole groups of four, padding only at the end, no stray bits behind the
// last byte. None when TEXT is anything else.
std::optional<std::vector<std::uint8_t>> base64Decoded(std::string_view text);

}  // namespace vpnctl
