// While it lives, this process can open only so many more descriptors.

#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <vector>

namespace helper::testing {

class FewDescriptors {
 public:
  explicit FewDescriptors(int more = 0) {
    EXPECT_EQ(::getrlimit(RLIMIT_NOFILE, &before_), 0);
    // The limit is on the numbers, and there may be gaps between those in use.
    std::vector<int> next(static_cast<std::size_t>(more) + 1);
    for (int &number : next) number = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    for (const int number : next) ::close(number);
    rlimit few = before_;
    few.rlim_cur = static_cast<rlim_t>(next.back());
    EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
  }
  FewDescriptors(const FewDescriptors &) = delete;
  FewDescriptors &operator=(const FewDescriptors &) = delete;
  ~FewDescriptors() { ::setrlimit(RLIMIT_NOFILE, &before_); }

 private:
  rlimit before_{};
};

}  // namespace helper::testing
