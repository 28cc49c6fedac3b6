// A stream that is written to from the event loop: what the other end does not take yet waits here, so that a slow or
// stopped reader keeps the loop from nothing.
//
// Usual sequence: write(); whoever can stop making text does so while isFull(), and goes on when `drained` is called;
// flush() before the end. Thread rule: the thread of the event loop. Only flush() blocks.

#pragma once

#include <systemd/sd-event.h>

#include <chrono>
#include <functional>
#include <string>
#include <string_view>

#include "linux/EventSource.h"

namespace companions {

class TextOutput {
 public:
  // The descriptor stays the caller's. DRAINED: nothing waits any more.
  TextOutput(sd_event *event, int fd, std::function<void()> drained = {});
  TextOutput(const TextOutput &) = delete;
  TextOutput &operator=(const TextOutput &) = delete;

  // What cannot be written any more, since nobody reads, is forgotten.
  void write(std::string_view text);
  // The same, for what is no part of the text: it does not count for isAtLineStart().
  void decorate(std::string_view text);
  bool isFull() const;
  // Blocks until all is written, but no longer than DEADLINE.
  void flush(std::chrono::milliseconds deadline);
  int descriptor() const { return fd_; }
  // Whether what was last written ends a line, or nothing was.
  bool isAtLineStart() const { return atLineStart_; }

 private:
  // Writes what can be written at once. False when some of it has to wait.
  bool writeSome();
  void wait();

  sd_event *event_;
  int fd_;
  std::function<void()> drained_;
  std::string waiting_;
  bool atLineStart_ = true;
  linux::EventSource writable_;
};

}  // namespace companions
