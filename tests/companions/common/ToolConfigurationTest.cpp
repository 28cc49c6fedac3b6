#include <fcntl.h>
#include <gtest/gtest.h>
#include <libconfig.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "companions/common/ToolConfiguration.h"
#include "tests/support/TemporaryFolder.h"

using namespace companions;
using vpnctl::Secret;

namespace {

const std::string kWhole =
    "protocol = \"l2tp\";\nip = \"192.0.2.1\";\nusername = \"OFFICE\\\\maria\";\npassword = \"pw\";\n"
    "shared_secret = \"ss\";\n";

// What libconfig, as vpnctl uses it, reads from what is delivered.
class Delivered {
 public:
  explicit Delivered(const ToolConfiguration::Delivery &delivery) {
    config_init(&settings_);
    std::array<char, 70000> text{};
    const ssize_t size = ::read(delivery.input.get(), text.data(), text.size() - 1);
    EXPECT_GE(size, 0);
    EXPECT_EQ(config_read_string(&settings_, text.data()), CONFIG_TRUE) << config_error_text(&settings_);
  }
  Delivered(const Delivered &) = delete;
  Delivered &operator=(const Delivered &) = delete;
  ~Delivered() { config_destroy(&settings_); }
  std::optional<std::string> find(const char *key) const {
    const char *value = nullptr;
    return config_lookup_string(&settings_, key, &value) == CONFIG_TRUE ? std::optional<std::string>(value)
                                                                        : std::nullopt;
  }

 private:
  config_t settings_;
};

class ToolConfigurationTest : public testing::Test {
 protected:
  ToolConfiguration read(const std::string &text) {
    auto configuration = ToolConfiguration::read(folder_.write("office.conf", text));
    EXPECT_TRUE(configuration);
    return std::move(*configuration);
  }
  support::TemporaryFolder folder_;
};

TEST_F(ToolConfigurationTest, AWholeFileIsHandedOverItself) {
  const auto configuration = read(kWhole);
  EXPECT_EQ(configuration.protocol(), "l2tp");
  EXPECT_EQ(configuration.server(), "192.0.2.1");
  EXPECT_EQ(configuration.username(), "OFFICE\\maria");
  EXPECT_TRUE(configuration.hasPassword());
  EXPECT_TRUE(configuration.hasSharedSecret());
  const auto delivery = configuration.deliver();
  ASSERT_TRUE(delivery);
  EXPECT_EQ(delivery->path, folder_.path("office.conf"));
  EXPECT_FALSE(delivery->input);
}

TEST_F(ToolConfigurationTest, WhatIsPutInIsHandedOverInAPipe) {
  auto configuration = read("protocol = \"l2tp\"; ip = \"192.0.2.1\"; username = \"OFFICE\\\\maria\"; other = 1;");
  EXPECT_FALSE(configuration.hasPassword());
  EXPECT_FALSE(configuration.hasSharedSecret());
  configuration.setPassword(Secret(std::string_view("a \"pass\\word\"\t\x01 \xc3\xa9")));
  configuration.setSharedSecret(Secret(std::string_view("line\nline; # // /*")));
  // Each time anew.
  for (int time = 0; time < 2; ++time) {
    const auto delivery = configuration.deliver();
    ASSERT_TRUE(delivery);
    EXPECT_EQ(delivery->path, "/proc/self/fd/0");
    struct stat status = {};
    ASSERT_EQ(::fstat(delivery->input.get(), &status), 0);
    EXPECT_TRUE(S_ISFIFO(status.st_mode));
    EXPECT_EQ(status.st_mode & 0777, 0600U);
    EXPECT_EQ(::fcntl(delivery->input.get(), F_GETFD), FD_CLOEXEC);
    const Delivered delivered(*delivery);
    EXPECT_EQ(delivered.find("protocol"), "l2tp");
    EXPECT_EQ(delivered.find("ip"), "192.0.2.1");
    EXPECT_EQ(delivered.find("username"), "OFFICE\\maria");
    EXPECT_EQ(delivered.find("password"), "a \"pass\\word\"\t\x01 \xc3\xa9");
    EXPECT_EQ(delivered.find("shared_secret"), "line\nline; # // /*");
  }
}

TEST_F(ToolConfigurationTest, EveryByteThatATextCanHoldComesThrough) {
  auto configuration = read(kWhole);
  std::string bytes;
  for (int code = 1; code < 256; ++code) bytes += static_cast<char>(code);
  configuration.setPassword(Secret(std::string_view(bytes)));
  const auto delivery = configuration.deliver();
  ASSERT_TRUE(delivery);
  EXPECT_EQ(Delivered(*delivery).find("password"), bytes);
}

TEST_F(ToolConfigurationTest, WhatIsStillMissingStaysSo) {
  auto configuration = read("protocol = \"pptp\";");
  EXPECT_FALSE(configuration.needsSharedSecret());
  configuration.setPassword(Secret(std::string_view("pw")));
  const auto delivery = configuration.deliver();
  ASSERT_TRUE(delivery);
  const Delivered delivered(*delivery);
  EXPECT_EQ(delivered.find("password"), "pw");
  EXPECT_FALSE(delivered.find("ip"));
  EXPECT_FALSE(delivered.find("shared_secret"));
}

TEST_F(ToolConfigurationTest, AFileThatCanBeReadOnlyOnceIsHandedOverAnew) {
  std::array<int, 2> ends{};
  ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
  const vpnctl::FileDescriptor readEnd(ends[0]);
  vpnctl::FileDescriptor writeEnd(ends[1]);
  ASSERT_EQ(::write(writeEnd.get(), kWhole.data(), kWhole.size()), static_cast<ssize_t>(kWhole.size()));
  writeEnd.reset();
  const auto configuration = ToolConfiguration::read("/proc/self/fd/" + std::to_string(readEnd.get()));
  ASSERT_TRUE(configuration);
  const auto delivery = configuration->deliver();
  ASSERT_TRUE(delivery);
  EXPECT_EQ(Delivered(*delivery).find("password"), "pw");
}

TEST_F(ToolConfigurationTest, SecretsAreForgotten) {
  auto configuration = read(kWhole);
  configuration.setPassword(Secret(std::string_view("other")));
  configuration.forgetSecrets();
  EXPECT_FALSE(configuration.hasPassword());
  EXPECT_FALSE(configuration.hasSharedSecret());
  const auto delivery = configuration.deliver();
  ASSERT_TRUE(delivery);
  const Delivered delivered(*delivery);
  EXPECT_EQ(delivered.find("ip"), "192.0.2.1");
  EXPECT_FALSE(delivered.find("password"));
}

TEST_F(ToolConfigurationTest, WhatIsTooLongForAPipeIsAnError) {
  auto configuration = read(kWhole);
  configuration.setPassword(Secret(std::string_view(std::string(std::size_t{64} << 20, 'x'))));
  EXPECT_FALSE(configuration.deliver());
}

TEST_F(ToolConfigurationTest, LongFilesAreReadToTheirEnd) {
  EXPECT_EQ(read("// " + std::string(300000, 'x') + "\n" + kWhole).server(), "192.0.2.1");
}

TEST_F(ToolConfigurationTest, WhatStandsThereIsNamedWithItsLine) {
  using Kind = ToolConfiguration::Setting::Kind;
  const auto configuration = ToolConfiguration::read(folder_.write(
      "office.conf", "ip = \"\";\n\npassword = \"pw\";\nport = 1;\nmore = { ip = \"x\"; };\nname = \"\xe4\";\n"));
  ASSERT_TRUE(configuration);
  std::vector<std::tuple<std::string, unsigned, Kind>> settings;
  for (const auto &setting : configuration->settings()) settings.emplace_back(setting.name, setting.line, setting.kind);
  EXPECT_EQ(settings, (std::vector<std::tuple<std::string, unsigned, Kind>>{{"ip", 1, Kind::empty},
                                                                            {"password", 3, Kind::text},
                                                                            {"port", 4, Kind::other},
                                                                            {"more", 5, Kind::other},
                                                                            {"name", 6, Kind::notUTF8}}));
}

TEST_F(ToolConfigurationTest, WhatCannotBeReadIsAnError) {
  EXPECT_FALSE(ToolConfiguration::read(folder_.path("nowhere")));
  EXPECT_FALSE(ToolConfiguration::read(folder_.path()));
  const auto odd = ToolConfiguration::read(folder_.write("odd", "protocol = \n\n;"));
  ASSERT_FALSE(odd);
  EXPECT_NE(odd.error().message.find("odd:3: syntax error"), std::string::npos) << odd.error().message;
  EXPECT_FALSE(ToolConfiguration::read(folder_.write("zero", std::string("a = 1;\0", 7))));
}

TEST_F(ToolConfigurationTest, AnUnreadOneIsHandedOverAsItIs) {
  const auto delivery = ToolConfiguration::unread("/some/where").deliver();
  ASSERT_TRUE(delivery);
  EXPECT_EQ(delivery->path, "/some/where");
}

}  // namespace
