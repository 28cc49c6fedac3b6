#include "companions/run/TextOutput.h"

#include <poll.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <utility>

namespace companions {

namespace {

constexpr std::size_t kFull = std::size_t{64} << 10;

bool isReady(int fd, int milliseconds) {
  pollfd ready{fd, POLLOUT, 0};
  return ::poll(&ready, 1, milliseconds) > 0;
}

}  // namespace

TextOutput::TextOutput(sd_event *event, int fd, std::function<void()> drained)
    : event_(event), fd_(fd), drained_(std::move(drained)) {}

void TextOutput::write(std::string_view text) {
  if (text.empty()) return;
  atLineStart_ = text.back() == '\n';
  decorate(text);
}

void TextOutput::decorate(std::string_view text) {
  waiting_ += text;
  if (!writable_ && !writeSome()) wait();
}

bool TextOutput::isFull() const { return waiting_.size() >= kFull; }

// The descriptor is others' too and blocks: a pipe that can be written to takes this much without.
bool TextOutput::writeSome() {
  std::size_t done = 0;
  while (done < waiting_.size() && isReady(fd_, 0)) {
    const ssize_t count = ::write(fd_, waiting_.data() + done, std::min<std::size_t>(waiting_.size() - done, PIPE_BUF));
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) break;
    done = count < 0 ? waiting_.size() : done + static_cast<std::size_t>(count);
  }
  waiting_.erase(0, done);
  return waiting_.empty();
}

void TextOutput::wait() {
  writable_ = linux::EventSource::io(
      event_, fd_, EPOLLOUT,
      [this](std::uint32_t) {
        if (!writeSome()) return;
        writable_.reset();
        if (drained_) drained_();
      });
}

void TextOutput::flush(std::chrono::milliseconds deadline) {
  const auto end = std::chrono::steady_clock::now() + deadline;
  writable_.reset();
  while (!writeSome()) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    if (left.count() <= 0 || !isReady(fd_, static_cast<int>(left.count()))) return;
  }
}

}  // namespace companions
