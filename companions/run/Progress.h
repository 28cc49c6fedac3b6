// What goes on, for a person: on a terminal one line that is written over, elsewhere a line for each change.
//
// Usual sequence: show() at each change; clear() before anybody else writes there, show() again after. Thread rule: the
// thread of the event loop.

#pragma once

#include <string>
#include <string_view>

#include "companions/run/TextOutput.h"

namespace companions {

class Progress {
 public:
  enum class Form { none, line, lines };

  Progress(TextOutput &output, Form form) : output_(output), form_(form) {}

  void show(const std::string &text);
  // Takes the line off the terminal; again() puts it back.
  void clear();
  void again();
  // Off the terminal, for good.
  void end();

 private:
  void draw();

  TextOutput &output_;
  Form form_;
  std::string text_;
  bool drawn_ = false;
};

}  // namespace companions
