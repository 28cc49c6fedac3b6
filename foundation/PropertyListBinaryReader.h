// The binary form ("bplist00") of a property list. What callers use is PropertyList.h.
//
// Layout: the 8 bytes of the magic; objects; a table with each object's offset; a trailer of 32 bytes that says how
// wide offsets and references are, how many objects there are, which one is the top, and where the table starts. All
// numbers are big-endian. Containers refer to their elements by number, so one object may be an element many times, or,
// in a hostile file, of itself.

#pragma once

#include <string_view>

#include "foundation/PropertyList.h"
#include "foundation/Result.h"
#include "foundation/Value.h"

namespace vpnctl {

// BYTES are no more than LIMITS say. An error's message is "NAME: byte N: reason".
Result<Value> propertyListFromBinary(std::string_view bytes, std::string_view name, const PropertyListLimits &limits);

}  // namespace vpnctl
