// Whether an option takes a value.

#pragma once

#include <cstdint>

namespace GB {

// Values beside these (3, the rest of the two bits that options helpers keep it in) are passed through and parse like
// switches, without a "no-" form.
enum GBOptionRequirement : std::uint64_t {
  GBOptionRequiresValue = 0,  // "--name=value" or "--name value"
  GBOptionValueOptional = 1,  // without a value it reads as YES
  GBOptionNoValue = 2,        // a switch, which has a "no-" form as well
};

}  // namespace GB
