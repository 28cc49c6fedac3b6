#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "companions/doctor/ServerCheck.h"
#include "tests/support/TemporaryFolder.h"

using namespace companions;
using testing::HasSubstr;
using Grade = Finding::Grade;

namespace {

in_addr addressOf(const char *text) { return in_addr{inet_addr(text)}; }

class ServerCheckTest : public testing::Test {
 protected:
  ServerCheckTest() {
    support::writeFile(folder_.path("office.conf"),
                       "protocol = \"pptp\"; ip = \"vpn.example.com\"; username = \"u\"; password = \"p\"; "
                       "shared_secret = \"s\";");
    situation_.configuration = ToolConfiguration::read(folder_.path("office.conf"));
    answers_.address.addresses = {addressOf("192.0.2.1")};
    answers_.route.emplace();
    answers_.route->kind = ServerRoute::Kind::way;
    answers_.route->interface = "eth0";
    answers_.route->interfaceMTU = 1500;
  }
  PPTPFinding &pptp() {
    if (!answers_.pptp) {
      answers_.pptp.emplace();
      answers_.pptp->contact = PPTPFinding::Contact::connected;
      answers_.pptp->start.emplace();
      answers_.pptp->call.emplace();
      answers_.pptp->packets = PPTPFinding::Packets::arrived;
    }
    return *answers_.pptp;
  }
  void ikeAnswers(bool onPort500, bool onPort4500) {
    const auto findingFor = [](bool answers) {
      IKEFinding found;
      if (answers) found.kind = IKEFinding::Kind::accepted;
      return found;
    };
    answers_.ike = findingFor(onPort500);
    answers_.ikeEncapsulated = findingFor(onPort4500);
  }
  void mtuIs(int bytes) {
    answers_.mtu.emplace();
    answers_.mtu->method = PathMTU::Method::echo;
    answers_.mtu->bytes = bytes;
  }
  // The only finding of NAME.
  Finding finding(std::string_view name) {
    std::vector<Finding> found;
    for (const Finding &each : ServerCheck::findingsOf(situation_, answers_))
      if (each.name == name) found.push_back(each);
    EXPECT_EQ(found.size(), 1U) << name;
    return found.empty() ? Finding{} : found.front();
  }
  // Nothing but what is fine, and what could not be seen.
  bool isFine() {
    for (const Finding &each : ServerCheck::findingsOf(situation_, answers_))
      if (each.grade == Grade::prevents || each.grade == Grade::hinders) return false;
    return true;
  }

  support::TemporaryFolder folder_;
  Situation situation_;
  ServerAnswers answers_;
};

TEST_F(ServerCheckTest, FindsNothingWhereEverythingAnswers) {
  pptp().start->vendor = "Example";
  mtuIs(1500);
  EXPECT_TRUE(isFine());
  EXPECT_EQ(finding("server.address").what, "vpn.example.com is 192.0.2.1.");
  EXPECT_EQ(finding("server.pptp").what, "A PPTP server answers (Example).");
  EXPECT_EQ(finding("server.gre").grade, Grade::fine);
  answers_.pptp.reset();
  ikeAnswers(true, true);
  EXPECT_TRUE(isFine());
  EXPECT_EQ(finding("server.esp").grade, Grade::unseen);
}

TEST_F(ServerCheckTest, AsksNobodyWithoutAServer) { EXPECT_TRUE(ServerCheck::look(Situation()).empty()); }

TEST_F(ServerCheckTest, SaysThatTheNameHasNoAddress) {
  answers_ = {};
  answers_.address.reason = "vpn.example.com has no address.";
  const Finding found = finding("server.address");
  EXPECT_EQ(found.grade, Grade::prevents);
  EXPECT_EQ(found.what, "vpn.example.com has no address.");
}

TEST_F(ServerCheckTest, SaysThatNoWayLeadsThere) {
  for (const auto kind : {ServerRoute::Kind::none, ServerRoute::Kind::unreachable, ServerRoute::Kind::blackhole,
                          ServerRoute::Kind::prohibited, ServerRoute::Kind::ownAddress}) {
    answers_.route->kind = kind;
    EXPECT_EQ(finding("server.route").grade, Grade::prevents);
  }
  answers_.route->kind = ServerRoute::Kind::unknown;
  EXPECT_EQ(finding("server.route").grade, Grade::unseen);
}

TEST_F(ServerCheckTest, SaysThatTheWayIsAnotherTunnel) {
  answers_.route->interface = "wg0";
  answers_.route->link = ServerRoute::Link::tunnel;
  EXPECT_EQ(finding("server.route").grade, Grade::hinders);
  EXPECT_THAT(finding("server.route").what, HasSubstr("wg0"));
}

TEST_F(ServerCheckTest, SaysThatNoPPTPServerListens) {
  pptp().contact = PPTPFinding::Contact::refused;
  EXPECT_EQ(finding("server.pptp").grade, Grade::prevents);
  EXPECT_THAT(finding("server.pptp").what, HasSubstr("it refuses the connection"));
  pptp().contact = PPTPFinding::Contact::nothing;
  EXPECT_THAT(finding("server.pptp").what, HasSubstr("nothing came back"));
  pptp().contact = PPTPFinding::Contact::unreachable;
  pptp().icmp = ICMPReport{.type = 3, .code = 13, .from = addressOf("192.0.2.254")};
  EXPECT_THAT(finding("server.pptp").what, HasSubstr("192.0.2.254 reports: "));
}

TEST_F(ServerCheckTest, SaysThatSomethingElseListens) {
  pptp().start.reset();
  pptp().fault = "closed the connection";
  EXPECT_EQ(finding("server.pptp").grade, Grade::prevents);
  EXPECT_THAT(finding("server.pptp").what, HasSubstr("it closed the connection"));
}

TEST_F(ServerCheckTest, SaysThatTheServerTakesNoCall) {
  pptp().call->result = 4;
  EXPECT_EQ(finding("server.pptp").grade, Grade::hinders);
}

TEST_F(ServerCheckTest, SaysWhetherGREComesBack) {
  pptp().packets = PPTPFinding::Packets::none;
  EXPECT_EQ(finding("server.gre").grade, Grade::prevents);
  pptp().packets = PPTPFinding::Packets::notAllowed;
  EXPECT_EQ(finding("server.gre").grade, Grade::unseen);
}

TEST_F(ServerCheckTest, SaysThatNoIKEServerAnswers) {
  ikeAnswers(false, false);
  EXPECT_EQ(finding("server.ike").grade, Grade::prevents);
  ikeAnswers(true, false);
  EXPECT_EQ(finding("server.ike").grade, Grade::hinders);
  ikeAnswers(false, true);
  EXPECT_EQ(finding("server.ike").grade, Grade::fine);
}

TEST_F(ServerCheckTest, SaysWhichProposalsTheServerTakes) {
  using helper::isakmp::IKEProposal;
  ikeAnswers(true, true);
  answers_.proposals.emplace();
  answers_.proposals->proposals = {{.proposal = IKEProposal{}, .kind = ProposalFinding::Kind::refused}};
  EXPECT_EQ(finding("server.proposals").grade, Grade::prevents);
  EXPECT_THAT(finding("server.proposals").what, HasSubstr("aes256-sha1-modp2048"));
  answers_.proposals->proposals.front().kind = ProposalFinding::Kind::taken;
  EXPECT_EQ(finding("server.proposals").grade, Grade::fine);
}

TEST_F(ServerCheckTest, NamesTheMTUThatFits) {
  pptp();
  mtuIs(1400);
  EXPECT_EQ(finding("server.mtu").grade, Grade::hinders);
  EXPECT_THAT(finding("server.mtu").remedy, HasSubstr("/etc/vpnctl/engine.d/vpn.example.com.conf: ppp = { mtu = 13"));
  situation_.settings.ppp.mtu = 1300;
  EXPECT_EQ(finding("server.mtu").grade, Grade::fine);
  answers_.mtu->method = PathMTU::Method::none;
  EXPECT_EQ(finding("server.mtu").grade, Grade::unseen);
}

}  // namespace
