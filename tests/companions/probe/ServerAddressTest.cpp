#include <gtest/gtest.h>
#include <netdb.h>

#include <future>

#include "companions/probe/ServerAddress.h"
#include "helper/common/IPv4Address.h"

using companions::ServerAddress;
using helper::addressFrom;
using helper::textOf;
using Addresses = helper::NameResolution::Addresses;

namespace {

int never(const std::string &, Addresses &) {
  ADD_FAILURE() << "nobody was to be asked";
  return EAI_FAIL;
}

TEST(ServerAddressTest, TakesNumbersAsTheyAre) {
  const ServerAddress found = ServerAddress::find("192.0.2.7", never);
  ASSERT_EQ(found.addresses.size(), 1U);
  EXPECT_EQ(textOf(found.addresses.front()), "192.0.2.7");
  EXPECT_EQ(found.reason, "");
}

TEST(ServerAddressTest, AsksForAName) {
  const ServerAddress found = ServerAddress::find("vpn.example", [](const std::string &name, Addresses &addresses) {
    EXPECT_EQ(name, "vpn.example");
    addresses = {*addressFrom("192.0.2.8"), *addressFrom("192.0.2.9")};
    return 0;
  });
  ASSERT_EQ(found.addresses.size(), 2U);
  EXPECT_EQ(textOf(found.addresses[0]), "192.0.2.8");
  EXPECT_EQ(textOf(found.addresses[1]), "192.0.2.9");
}

TEST(ServerAddressTest, SaysWhyThereIsNone) {
  for (const char *text : {"", "::1", "224.0.0.1", "no such name"}) {
    const ServerAddress found = ServerAddress::find(text, never);
    EXPECT_TRUE(found.addresses.empty()) << text;
    EXPECT_NE(found.reason, "") << text;
  }
  const ServerAddress unknown =
      ServerAddress::find("vpn.example", [](const std::string &, Addresses &) { return EAI_NONAME; });
  EXPECT_TRUE(unknown.addresses.empty());
  EXPECT_NE(unknown.reason.find("vpn.example"), std::string::npos) << unknown.reason;
}

TEST(ServerAddressTest, DoesNotWaitBeyondItsDeadline) {
  // The resolver's thread outlives the question, so what it waits for is shared with it.
  auto release = std::make_shared<std::promise<void>>();
  auto released = std::make_shared<std::shared_future<void>>(release->get_future());
  const ServerAddress found = ServerAddress::find(
      "vpn.example",
      [released](const std::string &, Addresses &) {
        released->wait();
        return 0;
      },
      std::chrono::milliseconds(20));
  EXPECT_TRUE(found.addresses.empty());
  EXPECT_NE(found.reason.find("in time"), std::string::npos) << found.reason;
  release->set_value();
}

}  // namespace
