// Values as CoreFoundation objects, and back.
//
// Thread rule: any thread.

#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "foundation/Value.h"
#include "platform/macos/CFObject.h"

namespace platform::macos {

// Empty when TEXT is not UTF-8.
CFObject<CFStringRef> stringOf(std::string_view text);

// Empty for what a property list cannot hold: null, a text that is not UTF-8, an integer past 2^63 - 1, or a container
// with such a thing anywhere in it.
CFObject<CFTypeRef> propertyListOf(const vpnctl::Value &value);

// The same for a dictionary; empty for anything else. A null reference must never stand for a Value that could not be
// converted: to the system it is the order to remove what is there.
CFObject<CFDictionaryRef> dictionaryOf(const vpnctl::Value &value);

// None for a null reference.
std::optional<std::string> textOf(CFStringRef string);

// Null for a null reference and for objects that no property list holds; in a container these are left out.
vpnctl::Value valueOf(CFTypeRef object);

}  // namespace platform::macos
