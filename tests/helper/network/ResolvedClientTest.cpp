#include <arpa/inet.h>

#include <cerrno>
#include <filesystem>
#include <optional>
#include <system_error>

#include "helper/network/ResolvedClient.h"
#include "tests/helper/network/FakeResolved.h"
#include "tests/support/LoopFixture.h"
#include "tests/support/TemporaryFolder.h"

using namespace helper;
using Mood = FakeResolved::Mood;

namespace {

class ResolvedClientTest : public support::LoopFixture {
 protected:
  vpnctl::Status tell(bool primary, std::chrono::milliseconds deadline = std::chrono::seconds(10),
                      const std::vector<std::string> &domains = {}) {
    ResolvedClient client(event_, "unix:path=" + folder_.path("bus"), deadline);
    std::optional<vpnctl::Status> answer;
    client.tell(7, {in_addr{inet_addr("10.9.0.1")}, in_addr{inet_addr("10.9.0.2")}}, domains, primary,
                [&](const vpnctl::Status &status) {
                  EXPECT_FALSE(answer) << "told twice";
                  answer = status;
                });
    EXPECT_FALSE(answer) << "from the loop only";
    EXPECT_TRUE(runUntil([&] { return answer.has_value(); }));
    // Whatever still comes must not be told.
    while (sd_event_run(event_, 0) > 0) continue;
    return answer.value_or(vpnctl::Error{});
  }

  const support::TemporaryFolder folder_;
};

TEST_F(ResolvedClientTest, TellsServersAndThatEveryNameIsAskedForThere) {
  FakeResolved resolved(event_, folder_.path("bus"), Mood::willing);
  const auto told = tell(true);
  EXPECT_TRUE(told) << told.error().message;
  EXPECT_EQ(resolved.calls, (std::vector<std::string>{"SetLinkDNS 7 10.9.0.1 10.9.0.2", "SetLinkDefaultRoute 7 true",
                                                      "SetLinkDomains 7 ~."}));
}

TEST_F(ResolvedClientTest, LeavesOtherNamesWhereTheyWere) {
  FakeResolved resolved(event_, folder_.path("bus"), Mood::willing);
  EXPECT_TRUE(tell(false));
  EXPECT_EQ(resolved.calls,
            (std::vector<std::string>{"SetLinkDNS 7 10.9.0.1 10.9.0.2", "SetLinkDefaultRoute 7 false"}));
}

TEST_F(ResolvedClientTest, TellsForWhichDomainsItIsAskedInAnyCase) {
  FakeResolved resolved(event_, folder_.path("bus"), Mood::willing);
  EXPECT_TRUE(tell(false, std::chrono::seconds(10), {"corp.example", "lab.test"}));
  ASSERT_EQ(resolved.calls.size(), 3U);
  EXPECT_EQ(resolved.calls[2], "SetLinkDomains 7 ~corp.example ~lab.test");
}

TEST_F(ResolvedClientTest, TellsDomainsBesideEverything) {
  FakeResolved resolved(event_, folder_.path("bus"), Mood::willing);
  EXPECT_TRUE(tell(true, std::chrono::seconds(10), {"corp.example"}));
  ASSERT_EQ(resolved.calls.size(), 3U);
  EXPECT_EQ(resolved.calls[2], "SetLinkDomains 7 ~corp.example ~.");
}

TEST_F(ResolvedClientTest, TellsWhyNot) {
  EXPECT_EQ(tell(true).error().message, "systemd-resolved cannot be reached without D-Bus");
  {
    FakeResolved resolved(event_, folder_.path("bus"), Mood::absent);
    EXPECT_EQ(tell(true).error().message, "systemd-resolved does not run");
  }
  std::filesystem::remove(folder_.path("bus"));
  FakeResolved resolved(event_, folder_.path("bus"), Mood::refusing);
  EXPECT_EQ(tell(true).error().message, "systemd-resolved refuses (This is no link of mine)");
}

TEST_F(ResolvedClientTest, WaitsOnlySoLong) {
  FakeResolved resolved(event_, folder_.path("bus"), Mood::silent);
  EXPECT_EQ(tell(true, std::chrono::milliseconds(50)).error().message, "systemd-resolved does not answer");
}

TEST_F(ResolvedClientTest, HearsThatTheDaemonIsGone) {
  auto resolved = std::make_optional<FakeResolved>(event_, folder_.path("bus"), Mood::silent);
  auto goodbye = linux::EventSource::timer(event_, std::chrono::milliseconds(20), [&] { resolved.reset(); });
  EXPECT_EQ(tell(true).error().message, "systemd-resolved does not answer");
}

TEST_F(ResolvedClientTest, AnExceptionOfItsHandlerEndsTheLoop) {
  for (const Mood mood : {Mood::willing, Mood::refusing}) {
    std::filesystem::remove(folder_.path("bus"));
    linux::EventLoop loop;
    ASSERT_GE(sd_event_new(linux::Out(loop)), 0);
    FakeResolved resolved(loop.get(), folder_.path("bus"), mood);
    ResolvedClient client(loop.get(), "unix:path=" + folder_.path("bus"), std::chrono::seconds(10));
    client.tell(7, {}, {}, true,
                [](const vpnctl::Status &) { throw std::system_error(EMFILE, std::generic_category(), "test"); });
    EXPECT_EQ(sd_event_loop(loop.get()), EMFILE);
  }
}

TEST_F(ResolvedClientTest, MayBeDestroyedByItsHandlerOrBeforeTheAnswer) {
  FakeResolved resolved(event_, folder_.path("bus"), Mood::refusing);
  auto client = std::make_unique<ResolvedClient>(event_, "unix:path=" + folder_.path("bus"));
  client->tell(
      7, {}, {}, true, [&](const vpnctl::Status &) { client.reset(); });
  EXPECT_TRUE(runUntil([&] { return client == nullptr; }));
  client = std::make_unique<ResolvedClient>(event_, "unix:path=" + folder_.path("nobody"));
  client->tell(7, {}, {}, true, [](const vpnctl::Status &) { FAIL(); });
  client.reset();
  while (sd_event_run(event_, 0) > 0) continue;
}

}  // namespace
