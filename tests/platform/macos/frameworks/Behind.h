// The fake platform under another name. It stands behind the small frameworks: scene, script, record and what calls do
// are its own; the frameworks in front of it have C functions and objects that are counted.
//
// A file that includes this one includes nothing of the platform API otherwise.

#pragma once

#define platform behind
#include "platform/Dispatch.h"
#include "platform/SCErrorState.h"
#include "platform/SystemConfiguration.h"
#include "platform/fake/FakePlatform.h"
#include "platform/fake/FakeText.h"
#undef platform
