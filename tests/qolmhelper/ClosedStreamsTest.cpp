// The tool without some of its standard streams: nothing else takes their numbers.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "tests/qolmhelper/ToolProcess.h"

namespace TN {
namespace {

// Which of the descriptors 0 to 2 are closed is a parameter, one bit for each.
std::set<int> closedOf(unsigned bits) {
  std::set<int> closed;
  for (int fd = 0; fd <= 2; ++fd)
    if ((bits >> fd & 1) != 0) closed.insert(fd);
  return closed;
}
std::string unlessClosed(unsigned bits, int fd, const std::string &text) {
  return (bits >> fd & 1) != 0 ? std::string() : text;
}

class ClosedStreams : public testing::TestWithParam<unsigned> {};
INSTANTIATE_TEST_SUITE_P(Combinations, ClosedStreams, testing::Range(0U, 8U));

TEST_P(ClosedStreams, DoNotChangeARun) {
  Scene scene;
  scene.closed = closedOf(GetParam());
  scene.script = "up status 1 ppp=1\nup status 2 ppp=8\nup status 0 ppp=0";
  const Outcome outcome = run(scene);
  EXPECT_EQ(outcome.output, unlessClosed(GetParam(), 1, kEcho));
  EXPECT_EQ(outcome.error, unlessClosed(GetParam(), 2,
                                        "Starting " + kProtocol +
                                            " connection...\nInitializing PPP network connection\n"
                                            "PPP Connected\nPPP Network connection disconnected\nExit.\n"));
  EXPECT_EQ(outcome.signal, 0);
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.count("SCNetworkConnectionStop"), 0) << "something that was printed counted as SIGUSR1";
}

// The real tool, held where it reads its configuration, from a pipe: by then its first file would have taken the lowest
// free number. Then it goes on as a user who is refused the right.
TEST_P(ClosedStreams, AreNullBeforeTheRealToolOpensAnything) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root, to look into the tool and to stop being it";
  Scene scene;
  scene.program = VPNCTL;
  scene.closed = closedOf(GetParam());
  scene.configuration = std::nullopt;
  scene.launcher = {
      "sh", "-c", "mkfifo config.qolm && chmod 755 . && exec setpriv --reuid 65534 --regid 65534 --clear-groups \"$@\"",
      "sh"};
  ToolProcess tool(scene);
  vpnctl::FileDescriptor configuration;
  for (const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
       !configuration && std::chrono::steady_clock::now() < end; std::this_thread::yield())
    configuration.reset(open(tool.path("config.qolm").c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
  ASSERT_TRUE(configuration) << "the tool does not read its configuration";
  for (const int fd : scene.closed)
    EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(tool.pid()) + "/fd/" + std::to_string(fd)),
              "/dev/null");
  ASSERT_TRUE(vpnctl::writeAll(configuration.get(), kConfiguration, "config.qolm"));
  configuration.reset();
  const Outcome outcome = tool.finish();
  EXPECT_EQ(outcome.output, unlessClosed(GetParam(), 1, kEcho));
  EXPECT_EQ(outcome.error, unlessClosed(GetParam(), 2, "Cannot get authorization!"));
  EXPECT_EQ(outcome.status, 1);
}

TEST_P(ClosedStreams, DoNotHideThatTheRealToolHasNoConfiguration) {
  Scene scene;
  scene.program = VPNCTL;
  scene.closed = closedOf(GetParam());
  scene.arguments = {"-c", "missing"};
  const Outcome outcome = run(scene);
  EXPECT_EQ(outcome.output, "");
  EXPECT_EQ(outcome.error, unlessClosed(GetParam(), 2, "error parse config: missing\n(null):0 - file I/O error\n"));
  EXPECT_EQ(outcome.status, 1);
}

}  // namespace
}  // namespace TN
