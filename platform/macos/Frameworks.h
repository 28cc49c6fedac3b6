// The system's headers. Everything here includes them through this file: two of their names are macros, and the
// platform API has names of its own that read the same.

#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <Security/Security.h>
#include <SystemConfiguration/SystemConfiguration.h>
#include <dispatch/dispatch.h>

namespace platform::macos {

inline const ::dispatch_source_type_t kSignalSourceType = DISPATCH_SOURCE_TYPE_SIGNAL;

}  // namespace platform::macos

#undef DISPATCH_SOURCE_TYPE_SIGNAL
#undef DISPATCH_QUEUE_PRIORITY_DEFAULT
