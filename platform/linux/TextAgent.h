// polkit's own agent for terminals: asks for an administrator's password where this process was started, if no agent of
// a desktop does.
//
// Usual sequence: start(), ask polkit, destroy. Thread rule: any. Both block for a moment.

#pragma once

#include <memory>

#include "linux/ChildProcess.h"

namespace platform {

class TextAgent {
 public:
  // Null where this process has no terminal in its hands, or polkit brings no such agent. Returns when polkit knows it.
  static std::unique_ptr<TextAgent> start();
  TextAgent(const TextAgent &) = delete;
  TextAgent &operator=(const TextAgent &) = delete;
  ~TextAgent();

 private:
  explicit TextAgent(linux::ChildProcess process) : process_(std::move(process)) {}

  linux::ChildProcess process_;
};

}  // namespace platform
