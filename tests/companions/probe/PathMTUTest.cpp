// In namespaces of the test's own, over a way that is narrower than its ends.

#include <atomic>

#include "companions/probe/PathMTU.h"
#include "helper/common/IPv4Address.h"
#include "tests/companions/probe/IKEServer.h"
#include "tests/companions/probe/RoutedNetwork.h"

using namespace companions;
using helper::isakmp::View;
using std::chrono::milliseconds;
using support::IKEServer;
using Method = PathMTU::Method;

namespace {

class PathMTUTest : public support::RoutedNetwork {
 protected:
  static constexpr int kInterface = 1500;

  static in_addr server() { return {htonl(kServer)}; }
  IKEServer ikeServer(IKEServer::Script script, bool marked = false) {
    return IKEServer(
        std::move(script), marked, kServer, [this] { enterServer(); });
  }
  Pace pace_{milliseconds(1)};
  PathMTU::Limits patient_{.patience = milliseconds(20000), .deadline = milliseconds(60000)};
  PathMTU::Limits hasty_{.patience = milliseconds(300), .deadline = milliseconds(60000)};
};

TEST_F(PathMTUTest, HearsOfTheNarrowPlaceFromTheRouter) {
  const PathMTU found = PathMTU::find(server(), kInterface, {}, pace_, patient_);
  EXPECT_EQ(found.method, Method::echo) << found.reason;
  EXPECT_EQ(found.bytes, kNarrow);
  EXPECT_TRUE(found.complete);
  ASSERT_TRUE(found.saidBy);
  EXPECT_EQ(helper::textOf(*found.saidBy), "10.1.0.1");
}

TEST_F(PathMTUTest, FindsItAloneWhereNobodySaysSo) {
  silenceRouter();
  const PathMTU found = PathMTU::find(server(), kInterface, {}, pace_, hasty_);
  EXPECT_EQ(found.method, Method::echo) << found.reason;
  EXPECT_EQ(found.bytes, kNarrow);
  EXPECT_TRUE(found.complete);
  EXPECT_FALSE(found.saidBy);
}

TEST_F(PathMTUTest, IsContentWithTheInterfaces) {
  const PathMTU found = PathMTU::find(server(), 1300, {}, pace_, patient_);
  EXPECT_EQ(found.bytes, 1300);
  EXPECT_FALSE(found.saidBy);
}

TEST_F(PathMTUTest, AsksIKEWhereEchoIsNotAnswered) {
  setOnServer("icmp_echo_ignore_all", "1");
  for (const bool marked : {false, true}) {
    const IKEServer ike = ikeServer([](View message) { return IKEServer::refuse(message); }, marked);
    const PathMTU found = PathMTU::find(server(), kInterface, ike.end(), pace_, hasty_);
    EXPECT_EQ(found.method, Method::ike) << found.reason;
    EXPECT_EQ(found.bytes, kNarrow);
    ASSERT_TRUE(found.saidBy);
    EXPECT_EQ(helper::textOf(*found.saidBy), "10.1.0.1");
  }
}

TEST_F(PathMTUTest, AsksInEarnestAServerThatIsSilentAboutRefusals) {
  silenceRouter();
  std::atomic<int> kept{0};
  const IKEServer ike = ikeServer([&](View message) {
    auto replies = IKEServer::choose(message, helper::isakmp::defaultIKEProposals());
    kept += static_cast<int>(replies.size());
    return replies;
  });
  const PathMTU found = PathMTU::findByIKE(ike.end(), kInterface, pace_, hasty_);
  EXPECT_EQ(found.method, Method::ike) << found.reason;
  EXPECT_EQ(found.bytes, kNarrow);
  EXPECT_FALSE(found.saidBy);
  EXPECT_LE(kept, 5) << "what a server keeps of it";
}

TEST_F(PathMTUTest, SaysSoWhereItIsNotToBeFoundOut) {
  setOnServer("icmp_echo_ignore_all", "1");
  const IKEServer ike = ikeServer([](View) { return std::vector<support::Bytes>{}; });
  const PathMTU found = PathMTU::find(server(), kInterface, ike.end(), pace_, hasty_);
  EXPECT_EQ(found.method, Method::none);
  EXPECT_EQ(found.bytes, 0);
  EXPECT_EQ(found.reason, "ICMP echo: no answer; IKE: no answer");
}

TEST_F(PathMTUTest, StopsAtItsDeadline) {
  silenceRouter();
  hasty_.deadline = milliseconds(1);
  const PathMTU found = PathMTU::find(server(), kInterface, {}, pace_, hasty_);
  EXPECT_FALSE(found.complete);
  EXPECT_LT(found.bytes, kNarrow);
}

}  // namespace
