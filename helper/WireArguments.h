// Reading what stands in a call, within limits.
//
// All of these give what sd-bus gives: a negative errno when the message is not what it should be, and then nothing is
// written.

#pragma once

#include <systemd/sd-bus.h>

#include <string>
#include <string_view>
#include <vector>

#include "foundation/Value.h"
#include "helper/store/KeychainItem.h"

namespace helper {

// The bytes stay the message's.
int readBytes(sd_bus_message *message, std::string_view *bytes);
// Text of at most MAXIMUM bytes (-EMSGSIZE).
int readText(sd_bus_message *message, std::size_t maximum, std::string *text);
// At most MAXIMUM entries (-EMSGSIZE).
int readTexts(sd_bus_message *message, std::size_t maximum, std::vector<std::string> *texts);
// a(uay); a tag that comes twice is -EINVAL.
int readAttributes(sd_bus_message *message, KeychainItem::Attributes *attributes);
// A property list that is a dictionary, or no bytes at all, which is a null Value. -EINVAL otherwise.
int readOptionalDictionary(sd_bus_message *message, foundation::Value *value);

}  // namespace helper
