// Follows a growing text file from its current end and hands every new line to a callback on a thread of its own.
//
// Usual sequence: initWithPath; tail; stop. Pieces come with their line feed, and a line without one in pieces of 1023
// characters. While it runs the tailer keeps itself alive: only stop() ends it. Thread rule: the callback runs on the
// tailer's own queue; stop() from any thread, the rest from one. The buffer that holds an unfinished line is one for
// the whole process: only one tailer may run at a time.

#pragma once

#include <atomic>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/Dispatch.h"

namespace TN {

class TNFileTailer : public std::enable_shared_from_this<TNFileTailer> {
 public:
  // A piece of the file; none when its bytes are not UTF-8.
  using Callback = std::function<void(const std::optional<std::string> &line)>;

  // Empty, with a line on the console log, when the file cannot be opened or has no end to start from.
  static std::shared_ptr<TNFileTailer> initWithPath(const std::string &path);
  // Takes the stream over, also on failure.
  static std::shared_ptr<TNFileTailer> initWithStream(std::FILE *stream);

  TNFileTailer(const TNFileTailer &) = delete;
  TNFileTailer &operator=(const TNFileTailer &) = delete;
  ~TNFileTailer();

  // Starts following and returns at once. Dropped, with a line on the console log, while it runs already. After a stop
  // it goes on where it stood.
  void tail(Callback callback);
  // Asks for the end and returns at once; noticed after at most one character or one second.
  void stop();

 private:
  explicit TNFileTailer(std::FILE *stream) : fp_(stream) {}

  void readLoop(const Callback &callback);

  std::FILE *fp_;
  long pos_ = 0;  // offset of the next character
  std::atomic<bool> running_ = false;
  platform::dispatch_queue_t queue_;
};

}  // namespace TN
