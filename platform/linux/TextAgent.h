// polkit's own agent for terminals: asks for an administrator's password where this process was started.
//
// Usual sequence: ask polkit; when nobody can be asked for a password, start(), ask polkit again, destroy. Thread rule:
// any. Both block for a moment.

#pragma once

#include <memory>

#include "linux/ChildProcess.h"

namespace platform {

class TextAgent {
 public:
  // Whether this process has a terminal in its hands, and polkit brings such an agent.
  static bool isPossible();
  // Returns when polkit knows it; null when it cannot be started.
  static std::unique_ptr<TextAgent> start();
  TextAgent(const TextAgent &) = delete;
  TextAgent &operator=(const TextAgent &) = delete;
  ~TextAgent();

 private:
  explicit TextAgent(linux::ChildProcess process) : process_(std::move(process)) {}

  linux::ChildProcess process_;
};

}  // namespace platform
