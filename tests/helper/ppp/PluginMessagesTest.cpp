#include <gtest/gtest.h>

#include <cstring>

#include "helper/ppp/PluginMessages.h"
#include "helper/ppp/PluginProtocol.h"

using namespace helper;

namespace {

template <class Record>
std::vector<std::uint8_t> bytesOf(const Record &record) {
  std::vector<std::uint8_t> bytes(sizeof record);
  std::memcpy(bytes.data(), &record, sizeof record);
  return bytes;
}

vpnctl_plugin_header header(std::uint16_t type) { return {VPNCTL_PLUGIN_VERSION, type}; }

vpnctl_plugin_ip_up ipUp() {
  vpnctl_plugin_ip_up record{};
  record.header = header(VPNCTL_PLUGIN_IP_UP);
  std::memcpy(record.interface, "ppp0", 5);
  record.local_address = 1;
  record.peer_address = 2;
  record.dns[0] = 3;
  record.dns[1] = 4;
  record.mtu = 1400;
  record.mru = 1500;
  return record;
}

TEST(PluginMessages, AreWhatThePluginSays) {
  EXPECT_TRUE(
      std::holds_alternative<PluginNeedsChannel>(*decodePluginMessage(bytesOf(header(VPNCTL_PLUGIN_NEED_CHANNEL)))));
  EXPECT_TRUE(
      std::holds_alternative<PluginNeedsPassword>(*decodePluginMessage(bytesOf(header(VPNCTL_PLUGIN_NEED_PASSWORD)))));
  EXPECT_EQ(
      std::get<PluginPhase>(*decodePluginMessage(bytesOf(vpnctl_plugin_phase{header(VPNCTL_PLUGIN_PHASE), 7, 12}))),
      (PluginPhase{7, 12}));
  EXPECT_EQ(
      std::get<PluginExit>(*decodePluginMessage(bytesOf(vpnctl_plugin_exit{header(VPNCTL_PLUGIN_EXIT), 19, 3, 0, 0}))),
      (PluginExit{19, 3}));
  const auto disputed =
      decodePluginMessage(bytesOf(vpnctl_plugin_exit{header(VPNCTL_PLUGIN_EXIT), 10, 3, 0xc22305, 3}));
  EXPECT_EQ(std::get<PluginExit>(*disputed).dispute,
            (PPPDispute{.wantedAuthentication = 0xc22305, .address = true, .encryption = true}));
  const auto up = std::get<PluginIPUp>(*decodePluginMessage(bytesOf(ipUp())));
  EXPECT_EQ(up.interface, "ppp0");
  EXPECT_EQ(up.localAddress.s_addr, 1U);
  EXPECT_EQ(up.peerAddress.s_addr, 2U);
  ASSERT_EQ(up.dns.size(), 2U);
  EXPECT_EQ(up.dns[1].s_addr, 4U);
  EXPECT_EQ(up.mtu, 1400);
  EXPECT_EQ(up.mru, 1500);
  EXPECT_FALSE(up.encrypted);
  auto encrypted = ipUp();
  encrypted.encrypted = 1;
  EXPECT_TRUE(std::get<PluginIPUp>(*decodePluginMessage(bytesOf(encrypted))).encrypted);
}

TEST(PluginMessages, NameEachServerOnce) {
  auto record = ipUp();
  record.dns[1] = record.dns[0];
  EXPECT_EQ(std::get<PluginIPUp>(*decodePluginMessage(bytesOf(record))).dns.size(), 1U);
  record.dns[0] = 0;
  EXPECT_EQ(std::get<PluginIPUp>(*decodePluginMessage(bytesOf(record))).dns.size(), 1U);
}

TEST(PluginMessages, AreRefusedInEveryOtherSize) {
  for (const auto &good : {bytesOf(header(VPNCTL_PLUGIN_NEED_CHANNEL)), bytesOf(header(VPNCTL_PLUGIN_NEED_PASSWORD)),
                           bytesOf(vpnctl_plugin_phase{header(VPNCTL_PLUGIN_PHASE), 7, 12}), bytesOf(ipUp()),
                           bytesOf(vpnctl_plugin_exit{header(VPNCTL_PLUGIN_EXIT), 19, 3, 0, 0})}) {
    auto longer = good;
    longer.push_back(0);
    EXPECT_FALSE(decodePluginMessage(longer));
    for (std::size_t size = 0; size < good.size(); ++size)
      EXPECT_FALSE(decodePluginMessage(std::span(good).first(size))) << size << " of " << good.size();
  }
}

TEST(PluginMessages, AreRefusedInAnotherVersionOrType) {
  EXPECT_FALSE(decodePluginMessage(bytesOf(vpnctl_plugin_header{VPNCTL_PLUGIN_VERSION + 1, 1})));
  for (const int type : {0, 6, int{VPNCTL_PLUGIN_CHANNEL}, int{VPNCTL_PLUGIN_PASSWORD}, 65535})
    EXPECT_FALSE(decodePluginMessage(bytesOf(header(static_cast<std::uint16_t>(type))))) << type;
}

TEST(PluginMessages, NeedAnInterfaceNameThatIsOne) {
  for (const char *name : {"", ".", "..", "a/b", "a b", "x;y"}) {
    auto record = ipUp();
    std::memset(record.interface, 0, sizeof record.interface);
    std::memcpy(record.interface, name, std::strlen(name));
    EXPECT_FALSE(decodePluginMessage(bytesOf(record))) << name;
  }
  auto endless = ipUp();
  std::memset(endless.interface, 'x', sizeof endless.interface);
  EXPECT_FALSE(decodePluginMessage(bytesOf(endless)));
}

}  // namespace
