// What a run loop of the small frameworks is.

#pragma once

#include <atomic>
#include <string>
#include <utility>

#include "tests/platform/macos/frameworks/Behind.h"
#include "tests/platform/macos/frameworks/Objects.h"

namespace frameworks {

struct RunLoop : Object {
  explicit RunLoop(behind::CFRunLoopRef theirs) : loop(std::move(theirs)) {}
  std::string kind() const override { return "run loop"; }

  const behind::CFRunLoopRef loop;
  std::atomic<bool> running = false;
};

RunLoop &runLoopAt(CFRunLoopRef reference);

}  // namespace frameworks
