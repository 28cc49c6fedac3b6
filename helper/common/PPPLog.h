// The PPP log, /var/log/ppp.log: what pppd says, and where the engine tells the user, in plain sentences, what went
// wrong and what to do about it. The tool follows this file and copies new lines to standard error.
//
// The file may be rotated: renamed, and a new one made in its place. The tool goes on reading the one that it has
// opened, so lines go into both.

#pragma once

#include <chrono>
#include <string>
#include <string_view>

#include "foundation/FileDescriptor.h"
#include "foundation/Result.h"

namespace helper {

class PPPLog {
 public:
  static constexpr char kPath[] = "/var/log/ppp.log";

  // Opens PATH for appending, creating it (0644). A symbolic link, anything but a regular file,
  // and a file that is not ours alone (another owner, a second name) are refused.
  static foundation::Result<PPPLog> open(const std::string &path = kPath);

  // Appends one line, "Sat Nov 21 10:00:00 2026 : SENTENCE\n", by one write. Made ASCII (other bytes become '?') and
  // cut to 1000 bytes, so that a follower gets it in one piece. Never blocks for long; a failing write is dropped:
  // there is nobody left to tell.
  void write(std::string_view sentence);
  // The same for a line of pppd's, which bears no date. Nobody waits for it to be read.
  void copy(std::string_view line);

  const std::string &path() const { return path_; }
  // When the last sentence was written; the epoch's start before the first.
  std::chrono::steady_clock::time_point lastWrite() const { return lastWrite_; }

 private:
  PPPLog(std::string path, foundation::FileDescriptor file);
  static foundation::Result<foundation::FileDescriptor> openFile(const std::string &path, int flags);
  void append(std::string line);
  void lookForNewFile();

  std::string path_;
  foundation::FileDescriptor file_;
  foundation::FileDescriptor newFile_;  // the latest that has taken its place
  std::chrono::steady_clock::time_point lastWrite_{};
};

}  // namespace helper
