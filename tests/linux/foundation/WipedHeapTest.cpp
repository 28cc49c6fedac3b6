// A child process frees what it knows, and its memory is searched for that.

#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "foundation/Secret.h"
#include "lab/tools/MemorySearch.h"

namespace vpnctl {
namespace {

constexpr char kMask = 0x55;
constexpr std::size_t kSize = 3000;

// What is looked for, in a form that is not found; another one each time, since a child also has what its parent looked
// for before.
std::string masked() {
  static std::minstd_rand random(static_cast<unsigned>(::getpid()));
  std::string text;
  for (std::size_t i = 0; i < kSize; ++i) text += static_cast<char>(('A' + random() % 57) ^ kMask);
  return text;
}

// Volatile: nobody but the search will read it, which a compiler does not know.
void unmask(volatile char *target, const std::string &text, std::size_t size) {
  for (std::size_t i = 0; i < size; ++i) target[i] = static_cast<char>(text[i] ^ kMask);
}

// What a child's memory shows after WORK.
lab::MemorySearch::Result memoryAfter(const std::function<void(const std::string &)> &work) {
  const std::string text = masked();
  int ready[2] = {-1, -1};
  int end[2] = {-1, -1};
  EXPECT_TRUE(::pipe(ready) == 0 && ::pipe(end) == 0);
  const pid_t child = ::fork();
  if (child == 0) {
    ::close(end[1]);
    work(text);
    char byte = 0;
    const bool told = ::write(ready[1], &byte, 1) == 1;
    ::_exit(told && ::read(end[0], &byte, 1) == 0 ? 0 : 1);
  }
  ::close(ready[1]);
  ::close(end[0]);
  char byte = 0;
  EXPECT_EQ(::read(ready[0], &byte, 1), 1);
  std::string secret(kSize, '\0');
  unmask(secret.data(), text, kSize);
  auto result = lab::MemorySearch(secret).in(child);
  ::close(ready[0]);
  ::close(end[1]);
  int status = 0;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  return result;
}

std::string told(const lab::MemorySearch::Result &result) {
  std::string text = std::to_string(result.searched) + " bytes searched:";
  for (const auto &finding : result.findings) text += " " + finding.form + " in " + finding.mapping;
  return text;
}

class WipedHeapTest : public testing::Test {
 protected:
  void SetUp() override {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer brings a heap of its own";
#endif
  }
};

TEST_F(WipedHeapTest, TheSearchFindsWhatIsKept) {
  for (const std::size_t size : {std::size_t{24}, kSize}) {
    const auto result = memoryAfter([size](const std::string &text) {
      static char *kept = nullptr;
      kept = static_cast<char *>(std::malloc(size));
      unmask(kept, text, size);
    });
    EXPECT_EQ(result.findings.size(), 1U) << told(result);
    EXPECT_GT(result.searched, std::uint64_t{1} << 20);
  }
}

TEST_F(WipedHeapTest, AFreedBlockOfAnySizeIsOverwritten) {
  for (const std::size_t size : {std::size_t{24}, std::size_t{200}, std::size_t{1000}, kSize}) {
    const auto result = memoryAfter([size](const std::string &text) {
      std::vector<char *> blocks;  // more than the heap keeps apart
      for (int i = 0; i < 20; ++i) blocks.push_back(static_cast<char *>(std::malloc(size)));
      for (char *const block : blocks) unmask(block, text, size);
      for (char *const block : blocks) std::free(block);
    });
    EXPECT_TRUE(result.findings.empty()) << size << ": " << told(result);
  }
}

TEST_F(WipedHeapTest, WhatGrowsLeavesNothingWhereItWas) {
  const auto result = memoryAfter([](const std::string &text) {
    std::size_t size = 24;
    auto *block = static_cast<char *>(std::malloc(size));
    for (; size <= kSize; size *= 2) {
      block = static_cast<char *>(std::realloc(block, size));
      unmask(block, text, size);
    }
    block = static_cast<char *>(std::realloc(block, 100));  // and what it gives back
    wipeMemory(block, 100);
    std::string growing;
    for (const char byte : text) growing += static_cast<char>(byte ^ kMask);
  });
  EXPECT_TRUE(result.findings.empty()) << told(result);
}

// Large enough to be given room to grow in place.
TEST_F(WipedHeapTest, WhatGrowsInItsRoomLeavesNothingEither) {
  const auto result = memoryAfter([](const std::string &text) {
    constexpr std::size_t kEnd = 100000;
    std::vector<char *> blocks;
    for (const std::size_t givenBack : {std::size_t{0}, std::size_t{100}, std::size_t{40000}}) {
      std::size_t size = 24;
      auto *block = static_cast<char *>(std::malloc(size));
      for (; size < kEnd; size += 64) {
        block = static_cast<char *>(std::realloc(block, size));
        if (size > kSize) unmask(block + size - kSize, text, kSize);
      }
      wipeMemory(block, givenBack);
      blocks.push_back(static_cast<char *>(std::realloc(block, givenBack)));
    }
  });
  EXPECT_TRUE(result.findings.empty()) << told(result);
}

// Parsers grow a text by a few bytes at a time. Moved each time, this one would take most of a minute.
TEST_F(WipedHeapTest, GrowingInSmallStepsTakesTimeInProportionToTheSize) {
  constexpr std::size_t kEnd = std::size_t{16} << 20;
  const auto start = std::chrono::steady_clock::now();
  char *block = nullptr;
  for (std::size_t size = 64; size <= kEnd; size += 64) {
    block = static_cast<char *>(std::realloc(block, size));
    ASSERT_NE(block, nullptr);
    block[size - 64] = static_cast<char>(size / 64);
  }
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(8));
  for (std::size_t size = 64; size <= kEnd; size += 64)
    ASSERT_EQ(block[size - 64], static_cast<char>(size / 64)) << size;
  std::free(block);
}

TEST_F(WipedHeapTest, AStreamLeavesNothingInItsBuffer) {
  const auto result = memoryAfter([](const std::string &text) {
    std::FILE *const stream = std::fopen("/dev/null", "w");
    for (const char byte : text) std::fputc(byte ^ kMask, stream);
    std::fclose(stream);
  });
  EXPECT_TRUE(result.findings.empty()) << told(result);
}

TEST_F(WipedHeapTest, ReallocKeepsItsPromises) {
  void *block = std::realloc(nullptr, 10);
  ASSERT_NE(block, nullptr);
  std::memcpy(block, "0123456789", 10);
  block = std::realloc(block, 100000);
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(std::memcmp(block, "0123456789", 10), 0);
  block = std::realloc(block, 120000);
  ASSERT_NE(block, nullptr);
  EXPECT_GE(malloc_usable_size(block), 120000U);
  std::memset(block, 'x', malloc_usable_size(block));  // who asks how much there is may use it
  std::memcpy(block, "0123456789", 10);
  block = std::realloc(block, 400000);
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(std::memcmp(block, "0123456789x", 11), 0);
  EXPECT_EQ(static_cast<char *>(block)[119999], 'x');
  EXPECT_EQ(std::realloc(block, PTRDIFF_MAX), nullptr);
  EXPECT_EQ(std::memcmp(block, "0123456789x", 11), 0);
  block = std::realloc(block, 5);
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(std::memcmp(block, "01234", 5), 0);
  std::free(block);
  std::free(nullptr);
}

}  // namespace
}  // namespace vpnctl
