#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>

#include "companions/links/LinksUp.h"
#include "helper/common/IPv4Address.h"

using namespace companions;
using helper::AddedRules;
using helper::FilledTable;
using helper::IPv4Network;
using helper::Journal;
using helper::LinkNote;
using helper::PolicyRule;
using helper::ProtectedFlow;
using std::chrono::seconds;
using Kind = PolicyRule::Kind;
using Stage = LinkState::Stage;
using Encryption = LinkState::Encryption;

namespace {

constexpr std::uint32_t kReqid = 0x01234567;
const Moment kNow{seconds(1700000000)};

in_addr address(const char *text) { return helper::addressFrom(text).value(); }
IPv4Network network(const char *text) { return helper::networkFrom(text).value(); }

// One L2TP link that carries everything, as root sees it: number 3, begun 110 s ago, up for 100 s.
Sources oneLink() {
  Sources sources;
  sources.now = kNow;
  sources.sinceBoot = seconds(1000);
  const LinkNote note{.helper = {500, 77},
                      .server = "vpn.example.com",
                      .protocol = "L2TP",
                      .begun = seconds(890),
                      .up = LinkNote::Up{.interface = "ppp0",
                                         .server = address("192.0.2.1"),
                                         .since = seconds(900),
                                         .nameServers = {address("10.0.0.53"), address("10.0.1.53")},
                                         .encryptedByPPP = false}};
  sources.journals->push_back(
      {"vpnctl/link.3", 3, true, {}, {ProtectedFlow{kReqid}, FilledTable{7003, {IPv4Network{}}}}, note});
  *sources.rules = {{.kind = Kind::wayToServer, .server = address("192.0.2.1"), .table = 7003},
                    {.kind = Kind::localNetworks},
                    {.kind = Kind::ownTable, .table = 7003},
                    {.kind = Kind::end, .table = 7003}};
  *sources.ledNetworks = {{7003, 8, IPv4Network{}}};
  *sources.interfaces = {{1, "lo", 65536, {}}, {8, "ppp0", 1400, {1000, 2000, 10, 20}}};
  *sources.addresses = {{1, address("127.0.0.1"), address("127.0.0.1")}, {8, address("10.0.0.2"), address("10.0.0.1")}};
  const ESPAssociation out{.reqid = kReqid,
                           .source = address("198.51.100.1"),
                           .destination = address("192.0.2.1"),
                           .algorithms = "aes256-sha256",
                           .insideUDP = true,
                           .made = seconds(1699999900),
                           .lifetime = seconds(3600)};
  *sources.associations = {out};
  sources.processes = {{500, 1, 77, "vpnctl-helper"},
                       {501, 500, 89000, "pppd", 3, "ppp0"},
                       {502, 500, 89010, "vpnctl-ike"},
                       {503, 1, 5, "vpnctl-ike"}};
  return sources;
}

// The same, seen by somebody else.
Sources asUser(Sources sources) {
  sources.journals = vpnctl::errnoError(EACCES, "look into /run/vpnctl");
  sources.associations = vpnctl::errnoError(EPERM, "read the IPSec associations");
  return sources;
}

std::vector<LinkState> linksIn(const Sources &sources) {
  auto links = linksUp(sources);
  EXPECT_TRUE(links) << links.error().message;
  return links ? *links : std::vector<LinkState>();
}

LinkState linkIn(const Sources &sources) {
  const auto links = linksIn(sources);
  EXPECT_EQ(links.size(), 1U);
  return links.empty() ? LinkState() : links.front();
}

TEST(LinksUp, WithoutAnyThereIsNone) {
  EXPECT_TRUE(linksIn(Sources()).empty());
  EXPECT_TRUE(linksIn(asUser(Sources())).empty());
}

TEST(LinksUp, RootSeesEverything) {
  const LinkState link = linkIn(oneLink());
  EXPECT_EQ(link.number, 3U);
  EXPECT_EQ(link.stage, Stage::up);
  EXPECT_EQ(link.server, "vpn.example.com");
  EXPECT_EQ(link.address, "192.0.2.1");
  EXPECT_EQ(link.protocol, "L2TP");
  EXPECT_EQ(link.begun, kNow - seconds(110));
  EXPECT_EQ(link.upSince, kNow - seconds(100));
  EXPECT_EQ(link.interface, "ppp0");
  EXPECT_EQ(link.localAddress, "10.0.0.2");
  EXPECT_EQ(link.peerAddress, "10.0.0.1");
  EXPECT_EQ(link.mtu, 1400U);
  EXPECT_EQ(link.traffic, (Traffic{1000, 2000, 10, 20}));
  EXPECT_EQ(link.networks, std::vector<IPv4Network>{IPv4Network{}});
  EXPECT_TRUE(link.carriesEverything());
  EXPECT_EQ(link.nameServers, (std::vector<std::string>{"10.0.0.53", "10.0.1.53"}));
  EXPECT_EQ(link.helper, 500);
  EXPECT_EQ(link.pppd, 501);
  EXPECT_EQ(link.ike, 502);
  EXPECT_TRUE(link.needsRoot.empty());
  EXPECT_EQ(link.fault, "");
}

TEST(LinksUp, KeysAreRenewedAsVpnctlIkeDoesIt) {
  const LinkState link = linkIn(oneLink());
  EXPECT_EQ(link.encryption, Encryption::ipsec);
  ASSERT_TRUE(link.ipsec);
  EXPECT_EQ(link.ipsec->algorithms, "aes256-sha256");
  EXPECT_TRUE(link.ipsec->insideUDP);
  const Moment made(seconds(1699999900));
  EXPECT_EQ(link.ipsec->made, made);
  EXPECT_EQ(link.ipsec->renewedFrom, made + seconds(3060));
  EXPECT_EQ(link.ipsec->renewedUntil, made + seconds(3240));
  EXPECT_EQ(link.ipsec->ends, made + seconds(3600));
}

TEST(LinksUp, TheNewestAssociationToTheServerCounts) {
  Sources sources = oneLink();
  ESPAssociation older = sources.associations->front();
  older.made -= seconds(50);
  older.algorithms = "3des-md5";
  ESPAssociation inbound = sources.associations->front();
  std::swap(inbound.source, inbound.destination);
  inbound.made += seconds(1);
  inbound.algorithms = "in";
  ESPAssociation foreign = sources.associations->front();
  foreign.reqid = 1;
  foreign.made += seconds(2);
  foreign.algorithms = "foreign";
  sources.associations->push_back(older);
  sources.associations->push_back(inbound);
  sources.associations->push_back(foreign);
  EXPECT_EQ(linkIn(sources).ipsec->algorithms, "aes256-sha256");
}

TEST(LinksUp, AUserSeesWhatTheKernelTellsEverybody) {
  const LinkState link = linkIn(asUser(oneLink()));
  EXPECT_EQ(link.number, 3U);
  EXPECT_EQ(link.stage, Stage::up);
  EXPECT_EQ(link.server, "");
  EXPECT_EQ(link.address, "192.0.2.1");
  EXPECT_EQ(link.protocol, "");
  // pppd's start, in ticks.
  EXPECT_EQ(link.begun, kNow - seconds(1000) + seconds(89000 / ::sysconf(_SC_CLK_TCK)));
  EXPECT_FALSE(link.upSince);
  EXPECT_EQ(link.interface, "ppp0");
  EXPECT_EQ(link.localAddress, "10.0.0.2");
  EXPECT_EQ(link.traffic, (Traffic{1000, 2000, 10, 20}));
  EXPECT_TRUE(link.carriesEverything());
  EXPECT_EQ(link.encryption, Encryption::unknown);
  EXPECT_FALSE(link.ipsec);
  EXPECT_EQ(link.helper, 500);
  EXPECT_EQ(link.pppd, 501);
  EXPECT_EQ(link.ike, 502);
  EXPECT_EQ(link.needsRoot,
            (std::vector<std::string>{"server's name", "protocol", "time since up", "name servers", "IPSec"}));
}

TEST(LinksUp, AUserWhoSeesNoProcessesIsToldSo) {
  Sources sources = asUser(oneLink());
  sources.processes.clear();
  const LinkState link = linkIn(sources);
  EXPECT_EQ(link.stage, Stage::unknown);
  EXPECT_EQ(link.interface, "ppp0") << "the link's table leads there";
  EXPECT_EQ(link.helper, 0);
}

TEST(LinksUp, AUserSeesALinkWithoutAnyNetworksByItsProcess) {
  Sources sources = asUser(oneLink());
  sources.ledNetworks->clear();
  LinkState link = linkIn(sources);
  EXPECT_EQ(link.interface, "ppp0");
  EXPECT_EQ(link.stage, Stage::up);
  EXPECT_TRUE(link.networks.empty());
  EXPECT_FALSE(link.carriesEverything());
  sources.addresses->clear();
  link = linkIn(sources);
  EXPECT_EQ(link.stage, Stage::comingUp);
}

TEST(LinksUp, OneThatComesUpHasWhatIsKnownByThen) {
  Sources sources = oneLink();
  sources.journals->front().note->up.reset();
  sources.journals->front().entries.clear();
  sources.rules->clear();
  sources.ledNetworks->clear();
  sources.interfaces->pop_back();
  sources.addresses->pop_back();
  sources.processes[1].interface.clear();
  LinkState link = linkIn(sources);
  EXPECT_EQ(link.stage, Stage::comingUp);
  EXPECT_EQ(link.server, "vpn.example.com");
  EXPECT_EQ(link.address, "");
  EXPECT_EQ(link.begun, kNow - seconds(110));
  EXPECT_EQ(link.interface, "");
  EXPECT_FALSE(link.traffic);
  // The name is resolved.
  *sources.rules = {{.kind = Kind::wayToServer, .server = address("192.0.2.9"), .table = 7003}};
  EXPECT_EQ(linkIn(sources).address, "192.0.2.9");
  // A folder that has only just been made.
  sources = Sources();
  sources.journals->push_back({"vpnctl/link.1", 1, true, {}, {}, {}});
  EXPECT_EQ(linkIn(sources).stage, Stage::comingUp);
}

TEST(LinksUp, OneWhoseInterfaceIsGoneGoesDown) {
  Sources sources = oneLink();
  sources.interfaces->pop_back();
  const LinkState link = linkIn(sources);
  EXPECT_EQ(link.stage, Stage::goingDown);
  EXPECT_EQ(link.interface, "");
}

TEST(LinksUp, WhatADeadHelperLeftIsNamed) {
  Sources sources = oneLink();
  sources.processes.clear();
  EXPECT_EQ(linkIn(sources).stage, Stage::leftBehind);
  // Another process has its number by now.
  sources.processes = {{500, 1, 78, "vpnctl-helper"}};
  EXPECT_EQ(linkIn(sources).stage, Stage::leftBehind);
  EXPECT_EQ(linkIn(sources).helper, 0);
  // Only its rules are there.
  sources.journals->clear();
  EXPECT_EQ(linkIn(sources).stage, Stage::leftBehind);
}

TEST(LinksUp, AnOlderHelpersLinkHasNoNote) {
  Sources sources = oneLink();
  sources.journals->front().note.reset();
  const LinkState link = linkIn(sources);
  EXPECT_EQ(link.stage, Stage::up);
  EXPECT_EQ(link.server, "");
  EXPECT_EQ(link.address, "192.0.2.1");
  EXPECT_EQ(link.protocol, "L2TP") << "it has IPSec";
  EXPECT_EQ(link.ipsec->algorithms, "aes256-sha256");
  EXPECT_EQ(link.interface, "ppp0");
  EXPECT_TRUE(link.needsRoot.empty());
}

TEST(LinksUp, PPTPIsEncryptedByPPPOrNot) {
  Sources sources = oneLink();
  sources.journals->front().note->protocol = "PPTP";
  sources.journals->front().entries.erase(sources.journals->front().entries.begin());
  EXPECT_EQ(linkIn(sources).encryption, Encryption::none);
  sources.journals->front().note->up->encryptedByPPP = true;
  EXPECT_EQ(linkIn(sources).encryption, Encryption::mppe);
  EXPECT_FALSE(linkIn(sources).ipsec);
}

TEST(LinksUp, NetworksThatAreRefusedForTheMomentAreItsNetworks) {
  Sources sources = oneLink();
  sources.ledNetworks->clear();
  sources.journals->front().entries = {FilledTable{7003, {network("10.0.0.0/8"), network("172.16.0.0/12")}}};
  const LinkState link = linkIn(sources);
  EXPECT_EQ(link.networks, (std::vector<IPv4Network>{network("10.0.0.0/8"), network("172.16.0.0/12")}));
  EXPECT_FALSE(link.carriesEverything());
}

TEST(LinksUp, SeveralAreSortedAndKeptApart) {
  Sources sources = oneLink();
  sources.rules->push_back({.kind = Kind::wayToServer, .server = address("192.0.2.7"), .table = 7001});
  sources.ledNetworks->push_back({7001, 9, network("10.0.0.0/8")});
  sources.interfaces->push_back({9, "ppp1", 1446, {}});
  sources.processes.push_back({600, 1, 1, "vpnctl-helper"});
  sources.processes.push_back({601, 600, 2, "pppd", 1, "ppp1"});
  const auto links = linksIn(sources);
  ASSERT_EQ(links.size(), 2U);
  EXPECT_EQ(links[0].number, 1U);
  EXPECT_EQ(links[0].address, "192.0.2.7");
  EXPECT_EQ(links[0].interface, "ppp1");
  EXPECT_EQ(links[0].helper, 600);
  EXPECT_EQ(links[0].ike, 0);
  EXPECT_EQ(links[0].networks, std::vector<IPv4Network>{network("10.0.0.0/8")});
  EXPECT_EQ(links[1].number, 3U);
  EXPECT_EQ(links[1].interface, "ppp0");
}

TEST(LinksUp, WhatCannotBeReadIsSaid) {
  Sources sources = oneLink();
  sources.associations = vpnctl::errnoError(EPERM, "read the IPSec associations");
  EXPECT_EQ(linkIn(sources).needsRoot, std::vector<std::string>{"IPSec"}) << "root without that right";
  sources.associations = vpnctl::errnoError(ETIMEDOUT, "read the IPSec associations");
  EXPECT_EQ(linkIn(sources).fault, "read the IPSec associations: Connection timed out");
  sources = oneLink();
  sources.journals = vpnctl::errnoError(EIO, "look into /run/vpnctl");
  ASSERT_FALSE(linksUp(sources));
  EXPECT_EQ(linksUp(sources).error().code, EIO);
  sources = oneLink();
  sources.addresses = vpnctl::errnoError(ETIMEDOUT, "read the addresses");
  ASSERT_FALSE(linksUp(sources));
  EXPECT_EQ(linksUp(sources).error().message, "read the addresses: Connection timed out");
}

}  // namespace
