// A link whose parts record, and the way to each of its stages. Nothing waits.

#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "helper/link/VPNLink.h"
#include "tests/helper/link/RecordingParts.h"

namespace helper::testing {

using std::chrono::milliseconds;
using std::chrono::seconds;
using support::LinkMachine;
using support::RecordingParts;

using Phases = std::vector<int>;

// How far a link has come. Each is reached from the one before.
enum class Stage {
  made,            // nothing asked for
  started,         // the loop has not turned yet
  findingServer,   // pppd runs
  makingTunnel,    // the server's address is known
  channelGiven,    // pppd has the tunnel's socket
  negotiating,     // PPP's phase 4
  authenticating,  // 5
  network,         // 7
  nameServers,     // PPP stands, the name servers are being set
  up,
  endingPPP,     // stop() was called: pppd says goodbye
  endingTunnel,  // pppd has ended
  readingTime,   // the machine is clean
  down
};

inline constexpr std::array kStageNames{"made",         "started",     "findingServer",  "makingTunnel",
                                        "channelGiven", "negotiating", "authenticating", "network",
                                        "nameServers",  "up",          "endingPPP",      "endingTunnel",
                                        "readingTime",  "down"};

inline std::string nameOf(Stage stage) { return kStageNames.at(static_cast<std::size_t>(stage)); }

inline std::vector<Stage> stages(Stage first, Stage last) {
  std::vector<Stage> all;
  for (int stage = static_cast<int>(first); stage <= static_cast<int>(last); ++stage)
    all.push_back(static_cast<Stage>(stage));
  return all;
}

inline in_addr address(const char *text) {
  in_addr result{};
  EXPECT_EQ(inet_pton(AF_INET, text, &result), 1);
  return result;
}

inline PluginIPUp ipUp(const char *local = "10.0.0.2") {
  PluginIPUp up;
  up.interface = "ppp0";
  up.localAddress = address(local);
  up.peerAddress = address("10.0.0.1");
  up.dns = {address("10.0.0.53")};
  up.mtu = 1400;
  up.mru = 1500;
  up.encrypted = true;
  return up;
}

inline LinkPlan plan(TunnelKind kind = TunnelKind::pptp) {
  LinkPlan plan;
  plan.kind = kind;
  plan.server = "vpn.example.org";
  plan.carriesEverything = true;
  return plan;
}

class VPNLinkTest : public ::testing::Test {
 protected:
  void make(LinkPlan plan) {
    link = std::make_unique<VPNLink>(
        std::move(plan), std::make_unique<RecordingParts>(machine),
        [this](const LinkStatus &status) { told.push_back(status); });
  }

  // Brings a fresh link to STAGE.
  void reach(Stage stage) {
    if (!link) make(plan());
    const auto takeStep = [this](Stage next) {
      switch (next) {
        case Stage::made:
          return;
        case Stage::started:
          return link->start();
        case Stage::findingServer:
          return machine.clock.run();
        case Stage::makingTunnel:
          return machine.address(std::vector{address("192.0.2.1")});
        case Stage::channelGiven:
          return machine.tunnel.up({});
        case Stage::negotiating:
          return machine.ppp.phase(kPhaseNegotiatingLink);
        case Stage::authenticating:
          return machine.ppp.phase(kPhaseAuthenticating);
        case Stage::network:
          return machine.ppp.phase(kPhaseNegotiatingNetwork);
        case Stage::nameServers:
          machine.ppp.phase(kPhaseConnected);
          return machine.ppp.ipUp(ipUp());
        case Stage::up:
          return machine.nameServersDone("");
        case Stage::endingPPP:
          return link->stop();
        case Stage::endingTunnel:
          return endPPP({.code = 5});
        case Stage::readingTime:
          // The last word comes from a turn of its own.
          machine.say("A last sentence.");
          return machine.clock.run();
        case Stage::down:
          return machine.clock.advance(milliseconds(100));
      }
    };
    for (const Stage next : stages(Stage::made, stage)) takeStep(next);
  }

  void endPPP(const PPPEnd &end) {
    machine.pppRuns = false;
    // Its handler may be replaced while it runs.
    const auto ended = machine.ppp.ended;
    ended(end);
  }

  // Lets go what was asked to end: pppd ends with CODE when it is told to, the tunnel at once.
  void finish(int code = 5) {
    if (machine.pppRuns && (machine.did("ppp terminate") || machine.did("ppp hangUp"))) endPPP({.code = code});
    machine.clock.advance(milliseconds(200));
  }

  Phases phases() const {
    Phases phases;
    for (const LinkStatus &status : told)
      phases.push_back(static_cast<int>(status.extendedStatus["PPP"]["Status"].integerValue()));
    return phases;
  }
  std::int64_t lastCause() const { return link->status().extendedStatus["PPP"]["LastCause"].integerValue(); }
  std::int64_t deviceLastCause() const {
    return link->status().extendedStatus["PPP"]["DeviceLastCause"].integerValue();
  }

  // The machine is as it was, and the last that was done made it so.
  void expectClean() {
    EXPECT_FALSE(machine.pppRuns);
    const auto takenBack = std::ranges::find(machine.deeds, "take back");
    ASSERT_NE(takenBack, machine.deeds.end());
    for (auto deed = takenBack; deed != machine.deeds.end(); ++deed)
      EXPECT_TRUE(*deed == "take back" || *deed == "tunnel gone") << *deed;
  }

  void expectDown(int cause, int deviceCause = 0) {
    EXPECT_TRUE(link->isDown());
    ASSERT_FALSE(told.empty());
    EXPECT_EQ(told.back().status, 0);
    EXPECT_EQ(std::ranges::count(phases(), 0), 1) << "disconnected is told once";
    EXPECT_EQ(lastCause(), cause);
    EXPECT_EQ(deviceLastCause(), deviceCause);
    expectClean();
  }

  LinkMachine machine;
  std::vector<LinkStatus> told;
  std::unique_ptr<VPNLink> link;
};

}  // namespace helper::testing
