// A socket that listens and has no room for one more to wait.

#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <string>
#include <vector>

#include "foundation/FileDescriptor.h"

namespace helper::testing {

class CrowdedListener {
 public:
  explicit CrowdedListener(const std::string &path) : listener_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(::bind(listener_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    EXPECT_EQ(::listen(listener_.get(), 0), 0);
    while (true) {
      waiting_.emplace_back(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
      if (::connect(waiting_.back().get(), reinterpret_cast<sockaddr *>(&address), sizeof address) < 0) break;
    }
    EXPECT_EQ(errno, EAGAIN);
  }

  void letOneIn() const {
    const foundation::FileDescriptor one(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    EXPECT_TRUE(one);
  }

 private:
  foundation::FileDescriptor listener_;
  std::vector<foundation::FileDescriptor> waiting_;
};

}  // namespace helper::testing
