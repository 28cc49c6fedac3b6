// Against scripted servers on loopback.

#include <unistd.h>

#include "companions/probe/GREListener.h"
#include "companions/probe/PPTPProbe.h"
#include "tests/helper/network/NetworkNamespace.h"
#include "tests/helper/pptp/PPTPServer.h"

using namespace companions;
using helper::testing::PPTPServer;
using std::chrono::milliseconds;
namespace pptp = helper::pptp;
using Contact = PPTPFinding::Contact;
using Packets = PPTPFinding::Packets;

namespace {

constexpr PPTPProbe::Options kPatient{.connecting = milliseconds(20000),
                                      .answering = milliseconds(20000),
                                      .listening = milliseconds(20000),
                                      .goodbye = milliseconds(20000)};

PPTPProbe::Options withCall() {
  PPTPProbe::Options options = kPatient;
  options.withCall = true;
  return options;
}
PPTPProbe::Options hasty(milliseconds PPTPProbe::Options::*wait) {
  PPTPProbe::Options options = withCall();
  options.*wait = milliseconds(20);
  return options;
}

pptp::StartReply introduction() {
  pptp::StartReply reply;
  reply.hostName = "server";
  reply.vendor = "somebody";
  return reply;
}
void answerStart(PPTPServer &server) {
  const auto request = server.receive();
  ASSERT_TRUE(request && std::holds_alternative<pptp::StartRequest>(*request));
  server.send(introduction());
}
void answerStop(PPTPServer &server) {
  const auto request = server.receive();
  ASSERT_TRUE(request && std::holds_alternative<pptp::StopRequest>(*request));
  server.send(pptp::StopReply{});
  EXPECT_FALSE(server.receive()) << "nothing else is said";
}
// The client's call id.
std::uint16_t takeCall(PPTPServer &server, std::uint8_t result = pptp::kResultOK) {
  const auto request = server.receive();
  const auto *call = request ? std::get_if<pptp::OutgoingCallRequest>(&*request) : nullptr;
  EXPECT_NE(call, nullptr);
  if (call == nullptr) return 0;
  pptp::OutgoingCallReply reply;
  reply.callID = 815;
  reply.peerCallID = call->callID;
  reply.result = result;
  server.send(reply);
  return call->callID;
}
void clearCall(PPTPServer &server, std::uint16_t callID) {
  const auto request = server.receive();
  const auto *clear = request ? std::get_if<pptp::CallClearRequest>(&*request) : nullptr;
  ASSERT_NE(clear, nullptr);
  EXPECT_EQ(clear->callID, callID);
  server.send(pptp::CallDisconnectNotify{.callID = 815, .result = 4});
}

TEST(PPTPProbeTest, IntroducesItselfAndTakesItsLeave) {
  PPTPServer server;
  server.play([](PPTPServer &s) {
    answerStart(s);
    answerStop(s);
  });
  const PPTPFinding finding = PPTPProbe::ask(server.address(), kPatient);
  EXPECT_EQ(finding.contact, Contact::connected);
  ASSERT_TRUE(finding.started()) << finding.fault;
  EXPECT_EQ(finding.start->hostName, "server");
  EXPECT_EQ(finding.start->vendor, "somebody");
  EXPECT_EQ(finding.packets, Packets::notAsked);
  EXPECT_TRUE(finding.saidGoodbye);
}

TEST(PPTPProbeTest, TellsARefusedConnection) {
  PPTPServer server;
  server.stopListening();
  const PPTPFinding finding = PPTPProbe::ask(server.address(), kPatient);
  EXPECT_EQ(finding.contact, Contact::refused);
  EXPECT_NE(finding.reason, "");
  EXPECT_FALSE(finding.start);
}

TEST(PPTPProbeTest, TellsARefusedStart) {
  PPTPServer server;
  server.play([](PPTPServer &s) {
    s.receive();
    pptp::StartReply refusal = introduction();
    refusal.result = 4;
    s.send(refusal);
    EXPECT_FALSE(s.receive());
  });
  const PPTPFinding finding = PPTPProbe::ask(server.address(), withCall());
  ASSERT_TRUE(finding.start);
  EXPECT_EQ(finding.start->result, 4);
  EXPECT_FALSE(finding.started());
  EXPECT_FALSE(finding.call);
}

TEST(PPTPProbeTest, TellsSilenceAndSuddenEnds) {
  PPTPServer silent;
  silent.play([](PPTPServer &s) {
    s.receive();
    s.receive();
  });
  EXPECT_EQ(PPTPProbe::ask(silent.address(), hasty(&PPTPProbe::Options::answering)).fault, "says nothing");
  PPTPServer closing;
  closing.play([](PPTPServer &s) { s.receive(); });
  EXPECT_EQ(PPTPProbe::ask(closing.address(), kPatient).fault, "closed the connection");
}

TEST(PPTPProbeTest, TellsWhatIsNoPPTP) {
  PPTPServer server;
  server.play([](PPTPServer &s) {
    s.receive();
    s.sendBytes({'S', 'S', 'H', '-', '2', '.', '0', '-', 's', 'o', 'm', 'e', '\r', '\n'});
    s.receive();
  });
  const PPTPFinding finding = PPTPProbe::ask(server.address(), kPatient);
  EXPECT_EQ(finding.contact, Contact::connected);
  EXPECT_FALSE(finding.start);
  EXPECT_NE(finding.fault.find("magic cookie"), std::string::npos) << finding.fault;
}

TEST(PPTPProbeTest, LetsNothingThroughThatATerminalObeys) {
  PPTPServer server;
  server.play([](PPTPServer &s) {
    s.receive();
    s.send(pptp::StartReply{.hostName = "\x1b[2Jevil\n", .vendor = "\xc3\xa9\x7f"});
    answerStop(s);
  });
  const PPTPFinding finding = PPTPProbe::ask(server.address(), kPatient);
  ASSERT_TRUE(finding.start) << finding.fault;
  EXPECT_EQ(finding.start->hostName, "?[2Jevil?");
  EXPECT_EQ(finding.start->vendor, "???");
}

TEST(PPTPProbeTest, IsNotKeptByAServerThatTalks) {
  PPTPServer server;
  server.play([](PPTPServer &s) {
    s.receive();
    // At once: the client goes before it has read them all.
    std::vector<std::uint8_t> words;
    for (int i = 0; i < 100; ++i) {
      const auto word = pptp::encode(pptp::SetLinkInfo{});
      words.insert(words.end(), word.begin(), word.end());
    }
    s.sendBytes(words);
    s.receive();
  });
  const PPTPFinding finding = PPTPProbe::ask(server.address(), kPatient);
  EXPECT_FALSE(finding.start);
  EXPECT_EQ(finding.fault, "says too much that was not asked for");
}

TEST(PPTPProbeTest, AnswersAnEchoAndHearsAnEnd) {
  PPTPServer server;
  server.play([](PPTPServer &s) {
    s.receive();
    s.send(pptp::EchoRequest{.identifier = 99});
    const auto reply = s.receive();
    const auto *echo = reply ? std::get_if<pptp::EchoReply>(&*reply) : nullptr;
    EXPECT_TRUE(echo != nullptr && echo->identifier == 99);
    s.send(pptp::StopRequest{});
    s.receive();
  });
  EXPECT_EQ(PPTPProbe::ask(server.address(), kPatient).fault, "ended the connection");
}

TEST(PPTPProbeTest, TellsARefusedCall) {
  PPTPServer server;
  server.play([](PPTPServer &s) {
    answerStart(s);
    takeCall(s, 5);
    answerStop(s);
  });
  const PPTPFinding finding = PPTPProbe::ask(server.address(), withCall());
  ASSERT_TRUE(finding.call) << finding.fault;
  EXPECT_EQ(finding.call->result, 5);
  EXPECT_FALSE(finding.tookCall());
  EXPECT_EQ(finding.packets, Packets::notAsked);
}

// A server's GRE is sent from raw sockets, in a namespace of its own: elsewhere nothing of it is seen.
class PPTPCallTest : public support::NetworkNamespace {
 protected:
  static void sendGRE(std::uint16_t callID) {
    const vpnctl::FileDescriptor socket(::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_GRE));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const std::array<std::uint8_t, 12> packet{
        0x30, 0x01, 0x88, 0x0b, 0, 0, static_cast<std::uint8_t>(callID >> 8), static_cast<std::uint8_t>(callID)};
    EXPECT_EQ(
        ::sendto(socket.get(), packet.data(), packet.size(), 0, reinterpret_cast<sockaddr *>(&address), sizeof address),
        static_cast<ssize_t>(packet.size()));
  }
};

TEST_F(PPTPCallTest, HearsTheServersFirstPacket) {
  PPTPServer server;
  server.play([](PPTPServer &s) {
    answerStart(s);
    const std::uint16_t callID = takeCall(s);
    sendGRE(callID);
    clearCall(s, callID);
    answerStop(s);
  });
  const PPTPFinding finding = PPTPProbe::ask(server.address(), withCall());
  EXPECT_TRUE(finding.tookCall()) << finding.fault;
  EXPECT_EQ(finding.packets, Packets::arrived);
  EXPECT_TRUE(finding.saidGoodbye);
}

TEST_F(PPTPCallTest, TellsThatNoneCame) {
  PPTPServer server;
  server.play([](PPTPServer &s) {
    answerStart(s);
    const std::uint16_t callID = takeCall(s);
    sendGRE(static_cast<std::uint16_t>(callID + 1));
    clearCall(s, callID);
    answerStop(s);
  });
  const PPTPFinding finding = PPTPProbe::ask(server.address(), hasty(&PPTPProbe::Options::listening));
  EXPECT_TRUE(finding.tookCall()) << finding.fault;
  EXPECT_EQ(finding.packets, Packets::none);
}

TEST_F(PPTPCallTest, TellsWhoIsUnreachableAndWhoSaysSo) {
  sockaddr_in far{};
  far.sin_family = AF_INET;
  far.sin_port = htons(PPTPProbe::kPort);
  far.sin_addr.s_addr = inet_addr("198.51.100.1");
  ASSERT_TRUE(ip({"route", "add", "unreachable", "198.51.100.1"}));
  const PPTPFinding finding = PPTPProbe::ask(far, kPatient);
  EXPECT_EQ(finding.contact, Contact::unreachable);
  EXPECT_NE(finding.reason, "");
  EXPECT_FALSE(finding.icmp) << "this machine's own word";
}

}  // namespace
