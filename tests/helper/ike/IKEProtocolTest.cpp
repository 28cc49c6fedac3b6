#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "helper/ike/IKEProtocol.h"

using namespace helper;
using namespace helper::isakmp;
using vpnctl::Secret;

namespace {

IKEStart start() {
  IKEStart start;
  start.plan.local = {10, 0, 0, 2};
  start.plan.localPort = 40000;
  start.plan.remote = {192, 0, 2, 1};
  start.plan.flowLocalPort = 1701;
  start.plan.otherFlowLocalPort = 50123;
  start.plan.identity = Identification::fromText("user@example.org").value();
  start.plan.peerIdentity = Identification::fromText("192.0.2.1");
  start.plan.ike = parseIKEProposals({"aes256-sha256-modp2048", "3des-sha1-modp1024"}).value();
  start.plan.esp = parseESPProposals({"aes128-sha1-modp1536"}).value();
  start.plan.aggressive = true;
  start.plan.ikeLifetime = std::chrono::seconds(60);
  start.plan.timing.tries = 3;
  start.presharedKey = Secret("a secret");
  return start;
}

std::vector<IKEOrder> orders() {
  return {start(), IKEAllocated{7, 0xc0ffee01}, IKEInstalled{7, Direction::outbound}, IKENotInstalled{8}, IKEStop{}};
}

std::vector<IKEReport> reports() {
  const auto esp = parseESPProposals({"aes256-sha256"}).value().front();
  const auto ike = parseIKEProposals({"aes256-sha1-ecp384"}).value().front();
  return {StageReached{Stage::association},
          NeedSPI{3},
          InstallState{3, Direction::inbound, 0xc0ffee02, esp, Secret("0123456789abcdef0123456789abcdef"),
                       Secret("fedcba9876543210fedcba9876543210"), true, std::chrono::seconds(3600)},
          RemoveStates{3, 1000, 0},
          Established{ike, esp, true, 1701, std::chrono::milliseconds(40)},
          Replaced{4},
          Refused{Stage::authentication, Reason::wrongSecret, 24, "it said no", true},
          Lost{true, Reason::silence, "it is gone"},
          Stopped{}};
}

TEST(IKEProtocol, CarriesEveryOrder) {
  for (const IKEOrder &order : orders()) {
    const Bytes record = encode(order);
    EXPECT_LE(record.size(), kLargestIKERecord);
    const auto back = decodeIKEOrder(record);
    ASSERT_TRUE(back) << back.error().message;
    EXPECT_EQ(back->index(), order.index());
    EXPECT_EQ(encode(*back), record) << "whatever it holds is still there";
  }
  const auto back = decodeIKEOrder(encode(IKEOrder(start())));
  const auto &plan = std::get<IKEStart>(*back).plan;
  EXPECT_EQ(plan.identity, start().plan.identity);
  EXPECT_EQ(plan.peerIdentity, start().plan.peerIdentity);
  EXPECT_EQ(plan.ike, start().plan.ike);
  EXPECT_EQ(plan.esp, start().plan.esp);
  EXPECT_EQ(std::get<IKEStart>(*back).presharedKey, Secret("a secret"));
}

TEST(IKEProtocol, CarriesEveryReport) {
  for (const IKEReport &report : reports()) {
    const Bytes record = encode(report);
    const auto back = decodeIKEReport(record);
    ASSERT_TRUE(back) << back.error().message;
    EXPECT_EQ(back->index(), report.index());
    EXPECT_EQ(encode(*back), record);
  }
}

TEST(IKEProtocol, RefusesEveryOtherSize) {
  for (const IKEReport &report : reports()) {
    Bytes record = encode(report);
    for (std::size_t size = 0; size < record.size(); ++size)
      EXPECT_FALSE(decodeIKEReport(View(record).first(size))) << report.index() << " " << size;
    record.push_back(0);
    EXPECT_FALSE(decodeIKEReport(record)) << report.index();
  }
  EXPECT_FALSE(decodeIKEReport(Bytes(kLargestIKERecord + 1, 1)));
}

TEST(IKEProtocol, RefusesWhatItDoesNotKnow) {
  Bytes record = encode(IKEReport(Stopped{}));
  record[0] = 2;
  EXPECT_EQ(decodeIKEReport(record).error().message, "version 2 of the protocol");
  record = {1, 9};
  EXPECT_EQ(decodeIKEReport(record).error().message, "a record of the unknown type 9");
  record = encode(IKEReport(StageReached{Stage::established}));
  record[2] = 5;
  EXPECT_EQ(decodeIKEReport(record).error().message, "a malformed record of type 0");
}

TEST(IKEProtocol, RefusesLongTextsAndForeignAlgorithms) {
  const Lost lost{true, Reason::otherwise, std::string(5000, 'a')};
  const auto cut = decodeIKEReport(encode(IKEReport(lost)));
  ASSERT_TRUE(cut) << "what is said is cut where it is said";
  EXPECT_EQ(std::get<Lost>(*cut).detail.size(), 512U);
  Bytes record = encode(reports()[4]);
  const std::string name = "aes256-sha1-ecp384";
  const auto at = std::search(record.begin(), record.end(), name.begin(), name.end());
  ASSERT_NE(at, record.end());
  *at = 'b';
  EXPECT_FALSE(decodeIKEReport(record));
}

}  // namespace
