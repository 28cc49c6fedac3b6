// The XML form of a property list, read through expat. What callers use is PropertyList.h.

#pragma once

#include <string>
#include <string_view>

#include "foundation/Result.h"
#include "foundation/Value.h"

namespace foundation {

// BYTES are at most kPropertyListMaximumSize. An error's message is "NAME: line N: reason".
Result<Value> propertyListFromXML(std::string_view bytes, std::string_view name);

}  // namespace foundation
