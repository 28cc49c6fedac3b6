// What a test prints, byte for byte: one of the standard streams goes into a file for as long as this lives.

#pragma once

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

class StreamCapture {
 public:
  explicit StreamCapture(FILE *stream) : stream_(stream), file_(std::tmpfile()) {
    std::fflush(stream_);
    saved_ = ::dup(::fileno(stream_));
    if (file_ == nullptr || saved_ < 0 || ::dup2(::fileno(file_), ::fileno(stream_)) < 0) std::abort();
  }
  StreamCapture(const StreamCapture &) = delete;
  StreamCapture &operator=(const StreamCapture &) = delete;
  ~StreamCapture() {
    std::fflush(stream_);
    static_cast<void>(::dup2(saved_, ::fileno(stream_)));
    ::close(saved_);
    std::fclose(file_);
  }

  // Everything so far, what waits in the stream's buffer too.
  std::string text() {
    std::fflush(stream_);
    return textWithoutFlushing();
  }

  std::string textWithoutFlushing() {
    std::string text;
    char buffer[4096];
    off_t position = 0;
    for (ssize_t count = 0; (count = ::pread(::fileno(file_), buffer, sizeof buffer, position)) > 0; position += count)
      text.append(buffer, static_cast<std::size_t>(count));
    return text;
  }

 private:
  FILE *stream_;
  FILE *file_;
  int saved_ = -1;
};

inline std::string printedBy(FILE *stream, const std::function<void()> &action) {
  StreamCapture capture(stream);
  action();
  return capture.text();
}
