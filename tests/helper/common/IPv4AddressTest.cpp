#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "helper/common/IPv4Address.h"

namespace helper {
namespace {

TEST(IPv4Address, IsReadAsItIsWritten) {
  for (const char *text : {"0.0.0.0", "10.0.0.1", "192.0.2.255", "255.255.255.255"}) {
    const auto address = addressFrom(text);
    ASSERT_TRUE(address) << text;
    EXPECT_EQ(textOf(*address), text);
  }
  EXPECT_EQ(addressFrom("10.0.0.1")->s_addr, htonl(0x0a000001));
}

TEST(IPv4Address, NothingElseIsOne) {
  for (const std::string &text : {std::string(), std::string("10.0.0"), std::string("10.0.0.256"),
                                  std::string("10.0.0.1 "), std::string("::1"), std::string("10.0.0.1\0", 9)})
    EXPECT_FALSE(addressFrom(text)) << text;
}

TEST(IPv4Network, IsReadAsItIsWritten) {
  for (const char *text : {"0.0.0.0/0", "10.0.0.0/8", "192.0.2.128/25", "192.0.2.7/32"}) {
    const auto network = networkFrom(text);
    ASSERT_TRUE(network) << text;
    EXPECT_EQ(textOf(*network), text);
  }
  EXPECT_EQ(networkFrom("0.0.0.0/0"), IPv4Network{});
}

TEST(IPv4Network, NothingElseIsOne) {
  for (const std::string &text :
       {std::string(), std::string("10.0.0.0"), std::string("10.0.0.0/"), std::string("10.0.0.0/33"),
        std::string("10.0.0.0/-1"), std::string("10.0.0.0/8 "), std::string("10.0.0.1/8"), std::string("0.0.0.1/0"),
        std::string("/8"), std::string("10.0.0.0/8\0", 11)})
    EXPECT_FALSE(networkFrom(text)) << text;
}

}  // namespace
TEST(IPv4Network, ContainsWhatItsPrefixSays) {
  const auto in = [](const char *network, const char *address) {
    return contains(networkFrom(network).value(), addressFrom(address).value());
  };
  EXPECT_TRUE(in("0.0.0.0/0", "255.0.0.1"));
  EXPECT_TRUE(in("128.0.0.0/1", "255.0.0.1"));
  EXPECT_FALSE(in("128.0.0.0/1", "127.0.0.1"));
  EXPECT_TRUE(in("192.168.1.0/24", "192.168.1.255"));
  EXPECT_FALSE(in("192.168.1.0/24", "192.168.2.0"));
  EXPECT_TRUE(in("192.0.2.7/32", "192.0.2.7"));
  EXPECT_FALSE(in("192.0.2.7/32", "192.0.2.6"));
}

}  // namespace helper
