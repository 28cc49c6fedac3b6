// What platform/macos uses of SystemConfiguration, in words of our own: names, types and numbers, nothing of the
// system's headers. It stands in their place where there are none.

#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <Security/Security.h>

#include "Definitions.h"
#include "Functions.h"
