// The PPP log, /var/log/ppp.log: what pppd says, and where the engine tells the user, in plain sentences, what went
// wrong and what to do about it. The tool follows this file and copies new lines to standard error.
//
// The file may be rotated: renamed, and a new one made in its place. The tool goes on reading the one that it has
// opened, so lines go into both.

#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/FileDescriptor.h"
#include "foundation/RateLimit.h"
#include "foundation/Result.h"

namespace helper {

class PPPLog {
 public:
  static constexpr char kPath[] = "/var/log/ppp.log";

  // Opens PATH for appending, creating it (0644). A symbolic link, anything but a regular file,
  // and a file that is not ours alone (another owner, a second name) are refused.
  static vpnctl::Result<PPPLog> open(const std::string &path = kPath);

  // The same file, for one of several who write into it: LABEL, "vpn.example.org: " perhaps, stands before each
  // sentence and each line. It is asked for each time.
  PPPLog labelled(std::function<std::string()> label) const;

  // Appends one line, "Sat Nov 21 10:00:00 2026 : SENTENCE\n", by one write. Made ASCII (other bytes become '?') and
  // cut to 1000 bytes, so that a follower gets it in one piece. Never blocks for long; a failing write is dropped:
  // there is nobody left to tell.
  void write(std::string_view sentence);
  // The same for a line of pppd's, which bears no date. Nobody waits for it to be read.
  void copy(std::string_view line);

  // From now on, for all who write into this file, LINES at most; how many were left out is told when there is room
  // again.
  void limit(const vpnctl::RateLimit &lines) { files_->lines = lines; }

  const std::string &path() const { return files_->path; }
  // When the last sentence was written, by this one; the epoch's start before the first.
  std::chrono::steady_clock::time_point lastWrite() const { return lastWrite_; }

 private:
  struct Files {
    std::string path;
    vpnctl::FileDescriptor file;
    vpnctl::FileDescriptor newFile;  // the latest that has taken its place
    std::optional<vpnctl::RateLimit> lines{};
    std::size_t leftOut = 0;

    void lookForNewFile();
    bool hasRoom();
    void append(std::string line);
  };

  explicit PPPLog(std::shared_ptr<Files> files) : files_(std::move(files)) {}
  void append(const std::string &before, std::string_view text);

  std::shared_ptr<Files> files_;
  std::function<std::string()> label_;
  std::chrono::steady_clock::time_point lastWrite_{};
};

}  // namespace helper
