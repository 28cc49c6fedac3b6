// A process that can open only so many descriptors more, while this lives.

#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include "foundation/FileDescriptor.h"

class FewDescriptors {
 public:
  // Takes for granted that the free numbers begin where the next one is.
  explicit FewDescriptors(unsigned count) {
    EXPECT_EQ(::getrlimit(RLIMIT_NOFILE, &before_), 0);
    const foundation::FileDescriptor next(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    const rlimit few = {static_cast<rlim_t>(next.get()) + count, before_.rlim_max};
    EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
  }
  FewDescriptors(const FewDescriptors &) = delete;
  FewDescriptors &operator=(const FewDescriptors &) = delete;
  ~FewDescriptors() { ::setrlimit(RLIMIT_NOFILE, &before_); }

 private:
  rlimit before_ = {};
};
