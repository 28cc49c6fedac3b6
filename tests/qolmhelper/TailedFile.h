// Both ends of a tailer under test: the lines that come out, and a file that knows how far it has been read.

#pragma once

#include <gtest/gtest.h>
#include <pthread.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "qolmhelper/TNFileTailer.h"

namespace TN {

inline constexpr std::chrono::seconds kPatience{30};

// What a tailer's callback was given, and when its loop has let go of the callback. The tailer's thread shares the
// insides: it may still be on its way out when the test is over.
class Lines {
 public:
  TNFileTailer::Callback callback() {
    const auto alive = std::shared_ptr<void>(nullptr, [state = state_](void *) {
      const std::lock_guard lock(state->mutex);
      state->ended = true;
      state->changed.notify_all();
    });
    return [state = state_, alive](const std::optional<std::string> &line) {
      const std::lock_guard lock(state->mutex);
      state->lines.push_back(line);
      state->thread = std::this_thread::get_id();
      std::array<char, 16> name{};
      pthread_getname_np(pthread_self(), name.data(), name.size());
      state->threadName = name.data();
      state->changed.notify_all();
    };
  }
  std::optional<std::string> next() {
    std::unique_lock lock(state_->mutex);
    if (!state_->changed.wait_for(lock, kPatience, [this] { return !state_->lines.empty(); })) {
      ADD_FAILURE() << "no line came";
      return "(no line came)";
    }
    const std::optional<std::string> line = state_->lines.front();
    state_->lines.pop_front();
    return line;
  }
  void waitForEnd() {
    std::unique_lock lock(state_->mutex);
    ASSERT_TRUE(state_->changed.wait_for(lock, kPatience, [this] { return state_->ended; }));
  }
  bool empty() {
    const std::lock_guard lock(state_->mutex);
    return state_->lines.empty();
  }
  std::thread::id thread() {
    const std::lock_guard lock(state_->mutex);
    return state_->thread;
  }
  std::string threadName() {
    const std::lock_guard lock(state_->mutex);
    return state_->threadName;
  }

 private:
  struct State {
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<std::optional<std::string>> lines;
    std::thread::id thread;
    std::string threadName;
    bool ended = false;
  };
  const std::shared_ptr<State> state_ = std::make_shared<State>();
};

// A file in memory that knows when its reader has taken everything. The stream holds the insides too.
class WatchedFile {
 public:
  using Clock = std::chrono::steady_clock;

  std::FILE *open() {
    const cookie_io_functions_t functions{
        [](void *self, char *bytes, std::size_t size) { return state(self).read(bytes, size); }, nullptr,
        [](void *self, off64_t *offset, int whence) { return state(self).seek(offset, whence); },
        [](void *self) {
          delete static_cast<std::shared_ptr<State> *>(self);
          return 0;
        }};
    return fopencookie(new std::shared_ptr<State>(state_), "r", functions);
  }
  void append(const std::string &text) {
    const std::lock_guard lock(state_->mutex);
    state_->text += text;
    state_->ends.clear();
  }
  // ACTION runs inside of the next read that gives text, on the reader's thread; it must leave this file alone.
  void duringNextText(std::function<void()> action) {
    const std::lock_guard lock(state_->mutex);
    state_->action = std::move(action);
  }
  // The next COUNT reads fail with EIO.
  void failReads(int count) {
    const std::lock_guard lock(state_->mutex);
    state_->failures = count;
  }
  int failuresLeft() {
    const std::lock_guard lock(state_->mutex);
    return state_->failures;
  }
  // The end that a read meets behind its text comes before the text is used; the end of the next read comes after.
  void waitUntilRead() {
    std::unique_lock lock(state_->mutex);
    ASSERT_TRUE(state_->changed.wait_for(lock, kPatience, [this] { return state_->ends.size() >= 2; }));
  }
  // When reads met the end, COUNT times at least.
  std::vector<Clock::time_point> ends(std::size_t count) {
    std::unique_lock lock(state_->mutex);
    EXPECT_TRUE(state_->changed.wait_for(lock, kPatience, [&] { return state_->ends.size() >= count; }));
    return state_->ends;
  }

 private:
  struct State {
    std::mutex mutex;
    std::condition_variable changed;
    std::string text = "old";
    std::size_t position = 0;
    std::vector<Clock::time_point> ends;
    std::function<void()> action;
    int failures = 0;

    ssize_t read(char *bytes, std::size_t size) {
      const std::lock_guard lock(mutex);
      if (failures > 0) {
        --failures;
        errno = EIO;
        return -1;
      }
      const std::size_t count = position < text.size() ? text.copy(bytes, size, position) : 0;
      position += count;
      if (count == 0) {
        ends.push_back(Clock::now());
        changed.notify_all();
      } else if (const auto now = std::exchange(action, nullptr)) {
        now();
      }
      return static_cast<ssize_t>(count);
    }
    int seek(off64_t *offset, int whence) {
      const std::lock_guard lock(mutex);
      if (whence == SEEK_END) *offset += static_cast<off64_t>(text.size());
      if (whence == SEEK_CUR) *offset += static_cast<off64_t>(position);
      position = static_cast<std::size_t>(*offset);
      return 0;
    }
  };
  static State &state(void *self) { return **static_cast<std::shared_ptr<State> *>(self); }

  const std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace TN
