// The XML form of a property list, read through expat. What callers use is PropertyList.h.

#pragma once

#include <string>
#include <string_view>

#include "foundation/PropertyList.h"
#include "foundation/Result.h"
#include "foundation/Value.h"

namespace vpnctl {

// BYTES are no more than LIMITS say. An error's message is "NAME: line N: reason".
Result<Value> propertyListFromXML(std::string_view bytes, std::string_view name, const PropertyListLimits &limits);

}  // namespace vpnctl
