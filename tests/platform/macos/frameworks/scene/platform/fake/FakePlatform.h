// What a test finds here when it asks for the fake platform: the one that stands behind the small frameworks. Tests of
// the tool are thereby the same for both backends.

#pragma once

#define platform behind
#include "../../../../../../../platform/fake/FakePlatform.h"
#undef platform

namespace platform {
namespace fake = behind::fake;
}
