// What platform/macos uses of libdispatch, in words of our own: names, types and numbers, nothing of the system's
// headers. It stands in their place where there are none.

#pragma once

#include <stdint.h>

#include "Definitions.h"
#include "Functions.h"

// Macros there, too.
#define DISPATCH_SOURCE_TYPE_SIGNAL (&_dispatch_source_type_signal)
#define DISPATCH_QUEUE_PRIORITY_DEFAULT 0
