// Against the kernel.

#include <optional>

#include "helper/common/IPv4Address.h"
#include "helper/network/NetworkWatch.h"
#include "helper/network/Routing.h"
#include "linux/SystemdOwners.h"
#include "tests/helper/network/NetworkNamespace.h"

using namespace helper;
using Kind = PolicyRule::Kind;

namespace {

class NetworkWatchTest : public support::NetworkNamespace {
 protected:
  void SetUp() override {
    NetworkNamespace::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    ASSERT_GE(sd_event_new(linux::Out(loop_)), 0);
    auto routing = NetlinkRouting::open();
    ASSERT_TRUE(routing);
    routing_ = std::move(*routing);
  }
  void watch(const char *server) {
    auto started = NetworkWatch::start(loop_.get(), addressFrom(server).value(),
                                       {.addressGone = [this](in_addr address) { gone_ = textOf(address); },
                                        .routingChanged = [this] { ++changes_; }});
    ASSERT_TRUE(started) << started.error().message;
    watch_ = std::move(*started);
  }
  // Whatever the kernel has said by now, and until nothing has come for a while.
  void listen(std::chrono::milliseconds silence = std::chrono::milliseconds(500)) {
    while (sd_event_run(loop_.get(), std::chrono::microseconds(silence).count()) > 0) {
    }
  }

  linux::EventLoop loop_;
  std::unique_ptr<NetlinkRouting> routing_;
  std::unique_ptr<NetworkWatch> watch_;
  std::optional<std::string> gone_;
  int changes_ = 0;
};

TEST_F(NetworkWatchTest, HearsThatItsAddressIsGone) {
  watch("192.0.2.7");
  ASSERT_TRUE(ip({"addr", "del", "10.1.0.2/24", "dev", "wire0"}));
  listen();
  EXPECT_EQ(gone_, "10.1.0.2");
}

TEST_F(NetworkWatchTest, HearsThatTheCardIsGone) {
  watch("192.0.2.7");
  ASSERT_TRUE(ip({"link", "del", "wire0"}));
  listen();
  EXPECT_EQ(gone_, "10.1.0.2");
}

TEST_F(NetworkWatchTest, DoesNotMindOtherAddressesNorOneThatComesBackAtOnce) {
  ASSERT_TRUE(ip({"addr", "add", "10.1.0.3/24", "dev", "wire0"}));
  watch("192.0.2.7");
  ASSERT_TRUE(ip({"addr", "del", "10.1.0.3/24", "dev", "wire0"}));
  ASSERT_TRUE(ip({"addr", "del", "10.1.0.2/24", "dev", "wire0"}));
  ASSERT_TRUE(ip({"addr", "add", "10.1.0.2/24", "dev", "wire0"}));
  listen();
  EXPECT_FALSE(gone_);
}

TEST_F(NetworkWatchTest, DoesNotMindAnotherDefaultRoute) {
  watch("192.0.2.7");
  ASSERT_TRUE(ip({"route", "replace", "default", "via", "10.1.0.9"}));
  listen();
  EXPECT_FALSE(gone_);
  EXPECT_EQ(changes_, 0);
}

TEST_F(NetworkWatchTest, HasNoAddressWhereThereIsNoWay) {
  ASSERT_TRUE(ip({"route", "del", "default"}));
  watch("192.0.2.7");
  ASSERT_TRUE(ip({"addr", "del", "10.1.0.2/24", "dev", "wire0"}));
  listen();
  EXPECT_FALSE(gone_);
}

TEST_F(NetworkWatchTest, HearsThatARuleOrARouteOfOursIsGone) {
  ASSERT_TRUE(routing_->add({.kind = Kind::ownTable, .table = 7001}));
  ASSERT_TRUE(routing_->refuse(7001, {}));
  ASSERT_TRUE(ip({"rule", "add", "lookup", "50"}));
  watch("192.0.2.7");
  ASSERT_TRUE(ip({"rule", "del", "lookup", "50"}));
  listen();
  EXPECT_EQ(changes_, 0) << "somebody else's";
  ASSERT_TRUE(ip({"rule", "del", "lookup", "7001"}));
  listen();
  EXPECT_EQ(changes_, 1);
  ASSERT_TRUE(ip({"route", "flush", "table", "7001"}));
  listen();
  EXPECT_EQ(changes_, 2);
}

TEST_F(NetworkWatchTest, MayBeDestroyedByItsHandler) {
  auto started = NetworkWatch::start(
      loop_.get(), addressFrom("192.0.2.7").value(),
      {.addressGone = [this](in_addr) { watch_.reset(); }, .routingChanged = [this] { watch_.reset(); }});
  ASSERT_TRUE(started);
  watch_ = std::move(*started);
  ASSERT_TRUE(ip({"link", "del", "wire0"}));
  listen();
  EXPECT_FALSE(watch_);
}

}  // namespace
