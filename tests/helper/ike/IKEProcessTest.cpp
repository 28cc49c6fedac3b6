#include <arpa/inet.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <fstream>
#include <sstream>

#include "helper/ike/IKEProcess.h"
#include "helper/ike/IKESocket.h"
#include "helper/ike/IKESpare.h"
#include "tests/helper/isakmp/TestServer.h"
#include "tests/support/LoopFixture.h"
#include "tests/support/TemporaryFolder.h"

using namespace helper;
using isakmp::Bytes;
using isakmp::Direction;
using isakmp::ServerPort;
using vpnctl::FileDescriptor;
using vpnctl::Secret;
using vpnctl::Status;

namespace {

// Needs no interface of its own, and is no other test's that runs at the same time.
isakmp::IPv4Bytes serverOfThisProcess() {
  const auto number = static_cast<std::uint32_t>(::getpid());
  const auto part = [number](int shift) { return static_cast<std::uint8_t>((number >> shift) & 0xff); };
  return {127, static_cast<std::uint8_t>(64 + part(16)), part(8), part(0)};
}
const isakmp::IPv4Bytes kServer = serverOfThisProcess();

sockaddr_in addressOf(const isakmp::IPv4Bytes &address, std::uint16_t port) {
  sockaddr_in result{};
  result.sin_family = AF_INET;
  std::memcpy(&result.sin_addr, address.data(), address.size());
  result.sin_port = htons(port);
  return result;
}

// The real program, and a server on this machine's loopback.
class IKEProcessTest : public support::LoopFixture {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can give its rights away";
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizers' bookkeeping does what a confined process may not";
#endif
    for (const ServerPort port : {ServerPort::ike, ServerPort::natTraversal})
      if (!listen(port)) GTEST_SKIP() << "somebody has port " << static_cast<int>(port) << " of this machine";
    ASSERT_TRUE(openClient());
  }

  bool openClient() {
    socket_.descriptor.reset(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = addressOf({127, 0, 0, 1}, 0);
    socklen_t size = sizeof address;
    if (::bind(socket_.descriptor.get(), reinterpret_cast<sockaddr *>(&address), size) < 0) return false;
    if (::getsockname(socket_.descriptor.get(), reinterpret_cast<sockaddr *>(&address), &size) < 0) return false;
    socket_.port = ntohs(address.sin_port);
    isakmp::TestServerOptions options;
    options.vendorIDs = isakmp::TestServerOptions::extensions(isakmp::NATTraversal::rfc3947);
    options.identity = isakmp::Identification::of(kServer);
    options.own = kServer;
    options.client = {127, 0, 0, 1};
    options.clientPort = socket_.port;
    server_.emplace(std::move(options));
    return true;
  }

  bool listen(ServerPort port) {
    FileDescriptor &socket = port == ServerPort::ike ? ikePort_ : natPort_;
    socket.reset(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const sockaddr_in address = addressOf(kServer, static_cast<std::uint16_t>(port));
    if (::bind(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) < 0) return false;
    (port == ServerPort::ike ? ikeSource_ : natSource_) =
        linux::EventSource::io(event_, socket.get(), EPOLLIN, [this, port](std::uint32_t) { serve(port); });
    return true;
  }
  int socketOf(ServerPort port) const { return port == ServerPort::ike ? ikePort_.get() : natPort_.get(); }

  void serve(ServerPort port) {
    std::array<std::uint8_t, 4096> bytes{};
    sockaddr_in from{};
    for (;;) {
      socklen_t size = sizeof from;
      const ssize_t count =
          ::recvfrom(socketOf(port), bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr *>(&from), &size);
      if (count < 0) return;
      for (const isakmp::Send &send : server_->receive(port, std::span(bytes).first(static_cast<std::size_t>(count))))
        ::sendto(socketOf(send.port), send.datagram.data(), send.datagram.size(), 0,
                 reinterpret_cast<const sockaddr *>(&from), size);
    }
  }

  IKESpeaker::Handlers handlers() {
    return {.report = [this](const IKEReport &report) { reported(report); },
            .ended =
                [this](const Status &how) {
                  ++ended_;
                  if (!how) error_ = how.error().message;
                }};
  }
  void start(const std::string &program = VPNCTL_IKE) {
    auto started = IKEProcess::start(event_, program, handlers());
    ASSERT_TRUE(started) << started.error().message;
    process_ = std::move(*started);
  }
  void orderStart() { orderStart(*process_); }
  void orderStart(IKESpeaker &speaker) {
    IKEStart start;
    start.plan.local = {127, 0, 0, 1};
    start.plan.localPort = socket_.port;
    start.plan.remote = kServer;
    start.plan.flowLocalPort = 1701;
    start.plan.identity = isakmp::Identification::of(start.plan.local);
    start.plan.ike = isakmp::parseIKEProposals({"aes256-sha1-ecp256"}).value();
    start.plan.esp = isakmp::parseESPProposals({"aes256-sha1"}).value();
    start.presharedKey = Secret("secret");
    speaker_ = &speaker;
    ASSERT_TRUE(speaker.order(start, socket_.descriptor.get()));
  }

  void reported(const IKEReport &report) {
    reports_.push_back(report);
    if (const auto *need = std::get_if<isakmp::NeedSPI>(&report))
      EXPECT_TRUE(speaker_->order(IKEAllocated{need->pair, 0xc0000001}, -1));
    if (const auto *state = std::get_if<isakmp::InstallState>(&report))
      EXPECT_TRUE(speaker_->order(IKEInstalled{state->pair, state->direction}, -1));
    if (destroyAt_ && destroyAt_ == report.index()) process_.reset();
  }
  template <class Report>
  std::size_t count() const {
    return static_cast<std::size_t>(std::ranges::count_if(
        reports_, [](const IKEReport &report) { return std::holds_alternative<Report>(report); }));
  }
  void comeUp() {
    ASSERT_NO_FATAL_FAILURE(start());
    ASSERT_NO_FATAL_FAILURE(orderStart());
    ASSERT_TRUE(runUntil([&] { return ended_ > 0 || count<isakmp::Established>() > 0; }));
    ASSERT_EQ(ended_, 0) << "it has died";
  }
  // Everything that was sent to the server by now.
  void serveAll() {
    serve(ServerPort::ike);
    serve(ServerPort::natTraversal);
  }

  FileDescriptor ikePort_;
  FileDescriptor natPort_;
  linux::EventSource ikeSource_;
  linux::EventSource natSource_;
  IKESocket socket_;
  std::optional<isakmp::TestServer> server_;
  std::vector<IKEReport> reports_;
  std::optional<std::size_t> destroyAt_;
  int ended_ = 0;
  std::string error_;
  std::unique_ptr<IKEProcess> process_;
  IKESpeaker *speaker_ = nullptr;
};

TEST_F(IKEProcessTest, BringsUpAPairAndTakesItsLeave) {
  ASSERT_NO_FATAL_FAILURE(comeUp());
  ASSERT_EQ(server_->pairs().size(), 1U);
  EXPECT_EQ(count<isakmp::InstallState>(), 2U);
  ASSERT_TRUE(process_->order(IKEStop{}, -1));
  ASSERT_TRUE(runUntil([&] { return ended_ == 1; }));
  EXPECT_EQ(count<isakmp::Stopped>(), 1U);
  EXPECT_EQ(error_, "");
  serveAll();
  EXPECT_TRUE(server_->pairs()[0].confirmed);
  EXPECT_EQ(server_->deletions().size(), 2U);
}

TEST_F(IKEProcessTest, HasNoRightsWhenItSpeaks) {
  ASSERT_NO_FATAL_FAILURE(comeUp());
  const std::string folder = "/proc/" + std::to_string(process_->pid());
  const std::string status = support::contentsOf(folder + "/status").value_or("");
  for (const char *line :
       {"Uid:\t65534\t65534\t65534\t65534", "CapEff:\t0000000000000000", "NoNewPrivs:\t1", "Seccomp:\t2"})
    EXPECT_NE(status.find(line), std::string::npos) << line;
  for (int descriptor = 4; descriptor < 64; ++descriptor)
    EXPECT_LT(::access((folder + "/fd/" + std::to_string(descriptor)).c_str(), F_OK), 0) << descriptor;
  EXPECT_TRUE(process_->peer()->runs(VPNCTL_IKE));
}

// Whoever wants the secret for it asks right after its start.
TEST_F(IKEProcessTest, IsTheProgramFromItsStartOn) {
  for (int time = 0; time < 50; ++time) {
    ASSERT_NO_FATAL_FAILURE(start());
    const auto peer = process_->peer();
    ASSERT_TRUE(peer);
    ASSERT_TRUE(peer->runs(VPNCTL_IKE)) << "start " << time;
  }
}

TEST_F(IKEProcessTest, TakesItsLeaveAlsoOfAHelperThatIsGone) {
  ASSERT_NO_FATAL_FAILURE(comeUp());
  process_.reset();
  serveAll();
  EXPECT_EQ(server_->deletions().size(), 2U);
  EXPECT_EQ(ended_, 0) << "nothing is told after its end";
}

TEST_F(IKEProcessTest, ItsDeathIsTold) {
  ASSERT_NO_FATAL_FAILURE(comeUp());
  ::kill(process_->pid(), SIGKILL);
  ASSERT_TRUE(runUntil([&] { return ended_ == 1; }));
  EXPECT_EQ(count<isakmp::Stopped>(), 0U);
}

TEST_F(IKEProcessTest, MayBeDestroyedByWhatItReports) {
  destroyAt_ = IKEReport(isakmp::NeedSPI{}).index();
  ASSERT_NO_FATAL_FAILURE(start());
  ASSERT_NO_FATAL_FAILURE(orderStart());
  ASSERT_TRUE(runUntil([&] { return process_ == nullptr; }));
  EXPECT_FALSE(runUntil([&] { return ended_ > 0; }, std::chrono::milliseconds(50)));
}

TEST_F(IKEProcessTest, RefusesAnotherBeginning) {
  ASSERT_NO_FATAL_FAILURE(start());
  ASSERT_TRUE(process_->order(IKEStop{}, -1));
  ASSERT_TRUE(runUntil([&] { return ended_ == 1; }));
  EXPECT_TRUE(reports_.empty());
}

TEST_F(IKEProcessTest, WhatIsNoReportEndsIt) {
  support::TemporaryFolder folder;
  const std::string program = folder.path("stranger");
  std::ofstream(program) << "#!/bin/sh\nprintf 'x' >&0\nread -r line\n";
  ::chmod(program.c_str(), 0700);
  ASSERT_NO_FATAL_FAILURE(start(program));
  ASSERT_TRUE(runUntil([&] { return ended_ == 1; }));
  EXPECT_EQ(error_, "a record of an impossible size");
  process_.reset();
  EXPECT_EQ(ended_, 1);
}

// Of this process.
std::vector<pid_t> childrenThatRun(const std::string &program) {
  std::vector<pid_t> found;
  const std::string self = std::to_string(::getpid());
  std::istringstream children(support::contentsOf("/proc/" + self + "/task/" + self + "/children").value_or(""));
  for (pid_t child = 0; children >> child;)
    if (const auto peer = Peer::ofChild(child); peer && peer->runs(program)) found.push_back(child);
  return found;
}

TEST_F(IKEProcessTest, TheSpareIsTheOneThatIsTaken) {
  IKESpare spare(event_, VPNCTL_IKE);
  const auto waiting = childrenThatRun(VPNCTL_IKE);
  ASSERT_EQ(waiting.size(), 1U);
  auto taken = spare.take(handlers());
  ASSERT_TRUE(taken);
  EXPECT_EQ((*taken)->pid(), waiting[0]);
  ASSERT_NO_FATAL_FAILURE(orderStart(**taken));
  ASSERT_TRUE(runUntil([&] { return ended_ > 0 || count<isakmp::Established>() > 0; }));
  EXPECT_EQ(ended_, 0);
  auto another = spare.take({.report = [](const IKEReport &) {}, .ended = [](const Status &) {}});
  ASSERT_TRUE(another);
  EXPECT_NE((*another)->pid(), waiting[0]);
}

TEST_F(IKEProcessTest, ASpareThatHasDiedIsReplaced) {
  IKESpare spare(event_, VPNCTL_IKE);
  const auto waiting = childrenThatRun(VPNCTL_IKE);
  ASSERT_EQ(waiting.size(), 1U);
  ::kill(waiting[0], SIGKILL);
  ASSERT_TRUE(runUntil([&] { return ::kill(waiting[0], 0) < 0; })) << "nobody has taken notice of its end";
  auto taken = spare.take(handlers());
  ASSERT_TRUE(taken);
  EXPECT_NE((*taken)->pid(), waiting[0]);
  ASSERT_NO_FATAL_FAILURE(orderStart(**taken));
  ASSERT_TRUE(runUntil([&] { return ended_ > 0 || count<isakmp::Established>() > 0; }));
  EXPECT_EQ(ended_, 0);
}

TEST_F(IKEProcessTest, ASpareEndsWithItsOwner) {
  { const IKESpare spare(event_, VPNCTL_IKE); }
  EXPECT_TRUE(childrenThatRun(VPNCTL_IKE).empty());
}

TEST_F(IKEProcessTest, ASpareThatCannotStartSaysSoWhenItIsNeeded) {
  IKESpare spare(event_, "/nowhere/vpnctl-ike");
  const auto taken = spare.take(handlers());
  ASSERT_FALSE(taken);
  EXPECT_NE(taken.error().message.find("/nowhere/vpnctl-ike"), std::string::npos) << taken.error().message;
}

}  // namespace
