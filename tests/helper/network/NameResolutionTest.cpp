#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <netdb.h>

#include <condition_variable>
#include <mutex>
#include <optional>

#include "helper/common/IPv4Address.h"
#include "helper/common/ServerAddress.h"
#include "helper/network/NameResolution.h"
#include "tests/support/LoopFixture.h"

using namespace helper;
using ::testing::ElementsAre;

namespace {

using Addresses = NameResolution::Addresses;

class NameResolutionTest : public support::LoopFixture {
 protected:
  NameResolution::Handler handler() {
    return [this](const vpnctl::Result<Addresses> &result) { answer_ = result; };
  }
  static NameResolution::Resolver never() {
    return [](const std::string &, Addresses &) {
      ADD_FAILURE() << "nobody was to be asked";
      return EAI_FAIL;
    };
  }
  // The addresses that come of those that the system FOUND.
  std::vector<std::string> answerTo(const std::vector<const char *> &found) {
    const NameResolution resolution(
        event_, "vpn.example", handler(),
        [&found](const std::string &name, Addresses &addresses) {
          EXPECT_EQ(name, "vpn.example");
          for (const char *each : found) addresses.push_back({inet_addr(each)});
          return 0;
        });
    EXPECT_TRUE(runUntil([this] { return answer_.has_value(); }));
    std::vector<std::string> texts;
    if (answer_ && *answer_)
      for (const in_addr address : **answer_) texts.push_back(textOf(address));
    return texts;
  }
  std::optional<vpnctl::Result<Addresses>> answer_;
};

TEST_F(NameResolutionTest, TakesAnAddressAsItIs) {
  const NameResolution resolution(event_, "192.0.2.7", handler(), never());
  EXPECT_FALSE(answer_) << "not from within the constructor";
  ASSERT_TRUE(runUntil([this] { return answer_.has_value(); }));
  ASSERT_TRUE(*answer_);
  ASSERT_EQ((*answer_)->size(), 1U);
  EXPECT_EQ((*answer_)->front().s_addr, inet_addr("192.0.2.7"));
}

TEST_F(NameResolutionTest, AsksForAName) { EXPECT_THAT(answerTo({"192.0.2.8"}), ElementsAre("192.0.2.8")); }

TEST_F(NameResolutionTest, TellsAllAddressesInTheirOrder) {
  EXPECT_THAT(answerTo({"192.0.2.8", "192.0.2.1", "192.0.2.9"}), ElementsAre("192.0.2.8", "192.0.2.1", "192.0.2.9"));
}

TEST_F(NameResolutionTest, TellsEachOnceAndOnlyThoseThatAServerCanHave) {
  EXPECT_THAT(answerTo({"0.0.0.0", "192.0.2.8", "224.0.0.1", "192.0.2.8", "192.0.2.9"}),
              ElementsAre("192.0.2.8", "192.0.2.9"));
}

TEST_F(NameResolutionTest, TellsFourAtMost) {
  EXPECT_THAT(answerTo({"192.0.2.1", "192.0.2.2", "192.0.2.3", "192.0.2.4", "192.0.2.5"}),
              ElementsAre("192.0.2.1", "192.0.2.2", "192.0.2.3", "192.0.2.4"));
}

TEST_F(NameResolutionTest, SaysWhyANameIsNotFound) {
  const NameResolution resolution(
      event_, "vpn.example", handler(), [](const std::string &, Addresses &) { return EAI_NONAME; });
  ASSERT_TRUE(runUntil([this] { return answer_.has_value(); }));
  ASSERT_FALSE(*answer_);
  EXPECT_NE(answer_->error().message.find("vpn.example"), std::string::npos);
}

TEST_F(NameResolutionTest, RefusesANameForNoServer) {
  EXPECT_THAT(answerTo({"0.0.0.0"}), ElementsAre());
  ASSERT_TRUE(answer_);
  EXPECT_FALSE(*answer_);
}

TEST_F(NameResolutionTest, DoesNotWaitForEver) {
  struct Gate {
    std::mutex mutex;
    std::condition_variable open;
    bool isOpen = false;
  };
  const auto gate = std::make_shared<Gate>();
  const NameResolution resolution(
      event_, "slow.example", handler(),
      [gate](const std::string &, Addresses &) {
        std::unique_lock lock(gate->mutex);
        gate->open.wait(
            lock, [&] { return gate->isOpen; });
        return 0;
      },
      std::chrono::milliseconds(20));
  ASSERT_TRUE(runUntil([this] { return answer_.has_value(); }));
  ASSERT_FALSE(*answer_);
  EXPECT_NE(answer_->error().message.find("in time"), std::string::npos);
  const std::lock_guard lock(gate->mutex);
  gate->isOpen = true;
  gate->open.notify_all();
}

TEST_F(NameResolutionTest, CanBeForgottenWhileItAsks) {
  NameResolution(event_, "vpn.example", handler(), [](const std::string &, Addresses &) { return 0; });
  EXPECT_FALSE(answer_);
}

TEST(NameResolutionParse, TellsAddressesNamesAndTheRest) {
  for (const char *address : {"192.0.2.7", "127.0.0.1", "223.255.255.255"}) {
    const auto parsed = serverAddressFrom(address);
    ASSERT_TRUE(parsed) << address;
    EXPECT_EQ(parsed->s_addr, inet_addr(address));
  }
  for (const char *name : {"localhost", "vpn.example.", "a-b.c_d", "1and1.example", "xn--bcher-kva.example"}) {
    const auto parsed = serverAddressFrom(name);
    ASSERT_TRUE(parsed) << name;
    EXPECT_EQ(parsed->s_addr, INADDR_ANY);
  }
  const std::string longName(254, 'a');
  for (const std::string &bad : {std::string(),
                                 std::string("0.0.0.0"),
                                 std::string("224.0.0.1"),
                                 std::string("255.255.255.255"),
                                 std::string("fe80::1"),
                                 std::string("::"),
                                 std::string("1.2.3"),
                                 std::string("1.2.3.4.5"),
                                 std::string("300.1.1.1"),
                                 std::string("0x7f.1"),
                                 std::string("a b"),
                                 std::string("a..b"),
                                 std::string(".a"),
                                 std::string("-a"),
                                 std::string("a/b"),
                                 std::string("a;b"),
                                 std::string("b\xc3\xbc"
                                             "cher.example"),
                                 longName,
                                 std::string("1.2.3.4\0x", 9),
                                 std::string("vpn\n.example")})
    EXPECT_FALSE(serverAddressFrom(bad)) << bad;
}

TEST(NameResolutionParse, NamesTheRemedyForIPv6) {
  EXPECT_NE(serverAddressFrom("2001:db8::1").error().message.find("IPv4"), std::string::npos);
}

}  // namespace
