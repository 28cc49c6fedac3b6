// What platform/macos uses of Security, in words of our own: names, types and numbers, nothing of the system's headers.
// It stands in their place where there are none.

#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <stddef.h>

#include "Definitions.h"
#include "Functions.h"
