#include "tests/platform/linux/SocketActivation.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <array>
#include <utility>

namespace platform::testing {

using vpnctl::FileDescriptor;

SocketActivation::SocketActivation(const std::string &path, std::string program)
    : program_(std::move(program)),
      listener_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)),
      stop_(::eventfd(0, EFD_CLOEXEC)) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  EXPECT_EQ(::bind(listener_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
  EXPECT_EQ(::chmod(path.c_str(), 0666), 0);
  EXPECT_EQ(::listen(listener_.get(), 8), 0);
  thread_ = std::thread([this] { serve(); });
}

SocketActivation::~SocketActivation() {
  EXPECT_EQ(::eventfd_write(stop_.get(), 1), 0);
  thread_.join();
}

void SocketActivation::serve() {
  for (;;) {
    std::array<pollfd, 2> waiting{pollfd{listener_.get(), POLLIN, 0}, pollfd{stop_.get(), POLLIN, 0}};
    ::poll(waiting.data(), waiting.size(), -1);
    if (waiting[1].revents != 0) return;
    const FileDescriptor connection(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!connection) continue;
    ++connections_;
    auto program = linux::ChildProcess::spawn({program_}, {}, {.input = connection.get()});
    if (program) programs_.push_back(std::move(*program));
  }
}

}  // namespace platform::testing
