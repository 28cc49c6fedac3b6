// What platform/macos uses of CoreFoundation, in words of our own: names, types and numbers, nothing of the system's
// headers. It stands in their place where there are none.

#pragma once

#include "Definitions.h"
#include "Functions.h"
