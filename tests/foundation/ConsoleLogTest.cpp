#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <regex>
#include <string>
#include <vector>

#include "foundation/ConsoleLog.h"
#include "foundation/FileDescriptor.h"
#include "foundation/ProcessInfo.h"
#include "foundation/Value.h"

namespace vpnctl {
namespace {

// Standard error as a sequence of packets: every write(2) becomes one.
class StandardErrorPackets {
 public:
  StandardErrorPackets() {
    int ends[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    reader_.reset(ends[0]);
    saved_.reset(::dup(STDERR_FILENO));
    ::dup2(ends[1], STDERR_FILENO);
    ::close(ends[1]);
  }
  ~StandardErrorPackets() { restore(); }

  // The packets so far. Standard error is the old one again.
  std::vector<std::string> finish() {
    restore();
    std::vector<std::string> packets;
    std::array<char, 4096> buffer;
    for (ssize_t size; (size = ::recv(reader_.get(), buffer.data(), buffer.size(), MSG_DONTWAIT)) > 0;)
      packets.emplace_back(buffer.data(), static_cast<std::size_t>(size));
    return packets;
  }

 private:
  void restore() {
    if (saved_) ::dup2(saved_.get(), STDERR_FILENO);
    saved_.reset();
  }

  FileDescriptor reader_;
  FileDescriptor saved_;
};

TEST(ConsoleLogTest, OneLinePerMessageInOneWrite) {
  StandardErrorPackets standardError;
  const Value path("/var/log/ppp.log");
  NSLog("Could not open file %@", &path);
  NSLog("%d%%", 50);
  const std::vector<std::string> lines = standardError.finish();

  ASSERT_EQ(lines.size(), 2U);
  const std::string prefix = "\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3} " + ProcessInfo::processName() +
                             "\\[" + std::to_string(::getpid()) + "\\] ";
  EXPECT_TRUE(std::regex_match(lines[0], std::regex(prefix + "Could not open file /var/log/ppp\\.log\n"))) << lines[0];
  EXPECT_TRUE(std::regex_match(lines[1], std::regex(prefix + "50%\n"))) << lines[1];
}

TEST(ConsoleLogTest, AMessageThatEndsItsLineGetsNoSecondEnd) {
  StandardErrorPackets standardError;
  NSLog("done\n");
  const std::vector<std::string> lines = standardError.finish();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_TRUE(lines[0].ends_with("] done\n")) << lines[0];
}

}  // namespace
}  // namespace vpnctl
