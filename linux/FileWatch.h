// Says when a file has been changed, replaced, removed or made by anybody, once whoever does that has left it alone for
// a moment.
//
// Usual sequence: watch(), destroy. The handler may destroy it. Thread rule: the thread of the event loop. Nothing
// blocks.

#pragma once

#include <systemd/sd-event.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "foundation/Result.h"
#include "linux/EventSource.h"

namespace linux {

class FileWatch {
 public:
  // A program that writes a small file in several steps is done by then.
  static constexpr std::chrono::milliseconds kQuiet{200};

  // The folder of PATH must exist, PATH need not. An error when the system has no room for a further watch.
  static vpnctl::Result<std::unique_ptr<FileWatch>> watch(sd_event *event, const std::string &path,
                                                          std::function<void()> changed,
                                                          std::chrono::milliseconds quiet = kQuiet);
  FileWatch(const FileWatch &) = delete;
  FileWatch &operator=(const FileWatch &) = delete;
  ~FileWatch() = default;

  // Says so once more, after another quiet moment.
  void again();

 private:
  FileWatch(sd_event *event, std::function<void()> changed, std::chrono::milliseconds quiet)
      : event_(event), changed_(std::move(changed)), quiet_(quiet) {}

  sd_event *event_;
  std::function<void()> changed_;
  const std::chrono::milliseconds quiet_;
  EventSource folder_;
  EventSource timer_;
};

}  // namespace linux
