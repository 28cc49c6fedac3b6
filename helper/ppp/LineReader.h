// What another program writes into a pipe, line by line.
//
// Usual sequence: construct with the pipe's end for reading, drain() when the writer has ended, destroy. Thread rule:
// the thread of the event loop. Nothing blocks.

#pragma once

#include <systemd/sd-event.h>

#include <functional>
#include <string>
#include <string_view>

#include "foundation/FileDescriptor.h"
#include "linux/EventSource.h"

namespace helper {

class LineReader {
 public:
  // A longer line is handed on in pieces.
  static constexpr std::size_t kMaximumLine = 4096;

  // HANDLER gets each line without its end.
  LineReader(sd_event *event, vpnctl::FileDescriptor pipe, std::function<void(std::string_view line)> handler);
  LineReader(const LineReader &) = delete;
  LineReader &operator=(const LineReader &) = delete;

  // Hands on whatever lies in the pipe now.
  void drain();
  // The same, and a last line that has no end: the writer is gone.
  void finish();

 private:
  void split();

  vpnctl::FileDescriptor pipe_;
  std::function<void(std::string_view)> handler_;
  std::string text_;  // of a line whose end is still to come
  linux::EventSource ready_;
};

}  // namespace helper
