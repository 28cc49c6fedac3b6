#include "helper/Identifier.h"

#include <systemd/sd-id128.h>

#include <algorithm>
#include <cstdlib>

namespace helper {

std::string newIdentifier() {
  sd_id128_t random = {};
  // Fails only where the kernel has no random numbers to give, which is no place to make keys and names in.
  if (sd_id128_randomize(&random) < 0) std::abort();
  char text[SD_ID128_UUID_STRING_MAX];
  std::string identifier = sd_id128_to_uuid_string(random, text);
  std::transform(identifier.begin(), identifier.end(), identifier.begin(), [](char digit) {
    return digit >= 'a' && digit <= 'f' ? static_cast<char>(digit - 'a' + 'A') : digit;
  });
  return identifier;
}

bool isIdentifier(std::string_view text) {
  if (text.size() != 36) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    const bool digit = (text[i] >= '0' && text[i] <= '9') || (text[i] >= 'A' && text[i] <= 'F');
    if (dash ? text[i] != '-' : !digit) return false;
  }
  return true;
}

}  // namespace helper
