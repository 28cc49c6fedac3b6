#include <gtest/gtest.h>
#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "platform/SecretFile.h"

namespace {

struct Message {
  int priority = 0;
  std::string text;
};
std::vector<Message> messages;

[[gnu::format(printf, 2, 0)]] void record(int priority, const char *format, std::va_list arguments) {
  char text[1024];
  std::vsnprintf(text, sizeof text, format, arguments);
  messages.push_back({priority, text});
}

}  // namespace

// What the linker puts in the place of the system's log; a build with checks calls the second.
extern "C" {
[[gnu::format(printf, 2, 3)]] void __wrap_syslog(int priority, const char *format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  record(priority, format, arguments);
  va_end(arguments);
}
[[gnu::format(printf, 3, 4)]] void __wrap___syslog_chk(int priority, int, const char *format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  record(priority, format, arguments);
  va_end(arguments);
}
}

namespace platform {
namespace {

TEST(MacSecretFile, TheSystemsLogHasThePathAndTheRemedy) {
  messages.clear();
  tellOfReadableSecrets("/etc/vpnctl/100%s.conf");
  ASSERT_EQ(messages.size(), 1u);
  EXPECT_EQ(messages[0].priority, LOG_WARNING);
  EXPECT_EQ(messages[0].text,
            "Everybody on this machine can read /etc/vpnctl/100%s.conf, and it holds secrets: chmod 600 would keep "
            "them.");
}

}  // namespace
}  // namespace platform
