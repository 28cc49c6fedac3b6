// How the small frameworks read what they are given, and make what they give; not by the code under test.

#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <string>

#include "foundation/Value.h"

namespace frameworks {

std::string textIn(CFStringRef string);
CFStringRef newString(const std::string &text);
// Null for a null reference.
vpnctl::Value valueIn(CFTypeRef object);
// A null reference for null.
CFTypeRef newPropertyList(const vpnctl::Value &value);

}  // namespace frameworks
