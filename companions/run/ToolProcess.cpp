#include "companions/run/ToolProcess.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <utility>

namespace companions {

using linux::ChildProcess;
using vpnctl::FileDescriptor;

namespace {

// One that is longer is told in pieces. vpnctl's own lines are short, those of the PPP log have 1000 bytes at most.
constexpr std::size_t kLongestLine = std::size_t{64} << 10;

}  // namespace

vpnctl::Result<std::unique_ptr<ToolProcess>> ToolProcess::start(sd_event *event, const std::string &program,
                                                                const std::string &configuration,
                                                                const std::vector<std::string> &environment, int input,
                                                                Handlers handlers) {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) < 0) return vpnctl::errnoError(errno, "make a pipe");
  FileDescriptor lines(ends[0]);
  const FileDescriptor itsEnd(ends[1]);
  if (::fcntl(lines.get(), F_SETFL, O_NONBLOCK) < 0) return vpnctl::errnoError(errno, "make a pipe");
  // It stays in our session and process group, so that polkit can ask in our terminal. There Ctrl-C and a hang-up reach
  // it as well as us, and would end it before it has disconnected: those are ours to act on.
  auto child = ChildProcess::prepare({program, "--config=" + configuration}, environment,
                                     {.input = input,
                                      .error = itsEnd.get(),
                                      .ownSession = false,
                                      .ignoredSignals = {SIGINT, SIGHUP},
                                      .signalWithoutUs = SIGUSR1});
  if (!child) return child.error();
  if (const auto released = child->release(); !released) return released.error();
  return std::unique_ptr<ToolProcess>(new ToolProcess(event, std::move(*child), std::move(lines), std::move(handlers)));
}

ToolProcess::ToolProcess(sd_event *event, ChildProcess child, FileDescriptor lines, Handlers handlers)
    : event_(event), lines_(std::move(lines)), handlers_(std::move(handlers)), child_(std::move(child)) {
  pause(false);
  child_.watch(event, [this](const ChildProcess::End &end) {
    // All that it has said is in the pipe; whether somebody else has the pipe open, too, does not matter.
    readable_.reset();
    while (readOnce()) {
    }
    tellLines(true);
    handlers_.ended(end);
  });
}

void ToolProcess::pause(bool paused) {
  if (paused || !lines_) return readable_.reset();
  if (!readable_)
    readable_ = linux::EventSource::io(event_, lines_.get(), EPOLLIN, [this](std::uint32_t) { readOnce(); });
}

bool ToolProcess::readOnce() {
  if (!lines_) return false;
  std::array<char, 4096> block;
  const ssize_t count = ::read(lines_.get(), block.data(), block.size());
  if (count < 0 && errno == EINTR) return true;
  if (count < 0 && errno == EAGAIN) return false;
  if (count <= 0) {
    readable_.reset();
    lines_.reset();
    return false;
  }
  unread_.append(block.data(), static_cast<std::size_t>(count));
  tellLines(false);
  return true;
}

void ToolProcess::tellLines(bool all) {
  std::size_t start = 0;
  for (std::size_t end = 0; (end = unread_.find('\n', start)) != std::string::npos; start = end + 1)
    handlers_.line(std::string_view(unread_).substr(start, end + 1 - start));
  unread_.erase(0, start);
  if (unread_.empty() || (!all && unread_.size() < kLongestLine)) return;
  handlers_.line(std::exchange(unread_, {}));
}

void ToolProcess::stop(std::chrono::milliseconds grace) {
  child_.signal(SIGUSR1);
  child_.killAfter(grace);
}

}  // namespace companions
