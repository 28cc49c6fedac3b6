#include "helper/ppp/LineReader.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <utility>

namespace helper {

LineReader::LineReader(sd_event *event, vpnctl::FileDescriptor pipe, std::function<void(std::string_view)> handler)
    : pipe_(std::move(pipe)), handler_(std::move(handler)) {
  ::fcntl(pipe_.get(), F_SETFL, O_NONBLOCK);
  ready_ = linux::EventSource::io(event, pipe_.get(), EPOLLIN, [this](std::uint32_t) { drain(); });
}

void LineReader::drain() {
  std::array<char, 4096> block{};
  while (true) {
    const ssize_t count = ::read(pipe_.get(), block.data(), block.size());
    if (count < 0 && errno == EINTR) continue;
    if (count == 0) ready_.reset();  // or the loop would turn for nothing
    if (count <= 0) return;
    text_.append(block.data(), static_cast<std::size_t>(count));
    split();
  }
}

void LineReader::finish() {
  drain();
  if (!text_.empty()) handler_(std::exchange(text_, {}));
}

void LineReader::split() {
  std::size_t begin = 0;
  for (std::size_t end = 0; (end = text_.find('\n', begin)) != std::string::npos; begin = end + 1)
    handler_(std::string_view(text_).substr(begin, end - begin));
  text_.erase(0, begin);
  if (text_.size() >= kMaximumLine) handler_(std::exchange(text_, {}));
}

}  // namespace helper
