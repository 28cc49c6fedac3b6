// A process that can open only so many descriptors more, while this lives.

#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <vector>

#include "foundation/FileDescriptor.h"

namespace support {

class FewDescriptors {
 public:
  explicit FewDescriptors(unsigned count) {
    EXPECT_EQ(::getrlimit(RLIMIT_NOFILE, &before_), 0);
    // The limit is on the numbers, and there may be gaps between those in use.
    std::vector<vpnctl::FileDescriptor> next(count + 1);
    for (auto &descriptor : next) descriptor.reset(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    const rlimit few = {static_cast<rlim_t>(next.back().get()), before_.rlim_max};
    EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
  }
  FewDescriptors(const FewDescriptors &) = delete;
  FewDescriptors &operator=(const FewDescriptors &) = delete;
  ~FewDescriptors() { ::setrlimit(RLIMIT_NOFILE, &before_); }

 private:
  rlimit before_ = {};
};

}  // namespace support
