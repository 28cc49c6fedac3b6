#include <fcntl.h>

#include <optional>

#include "helper/ike/ViciConnection.h"
#include "helper/ike/ViciExchange.h"
#include "tests/helper/ike/CrowdedListener.h"
#include "tests/helper/ike/ViciServer.h"
#include "tests/support/LoopFixture.h"
#include "tests/support/TemporaryFolder.h"

using namespace helper;
using helper::testing::ViciServer;
using std::chrono::milliseconds;
using std::chrono::seconds;
using vici::Packet;
using vici::PacketType;
using vici::Section;

namespace {

class ViciConnectionTest : public support::LoopFixture {
 protected:
  ViciConnectionTest() {
    auto socket = ViciConnection::connect(folder_.path("vici"));
    EXPECT_TRUE(socket);
    connection_ = std::make_unique<ViciConnection>(
        event_, std::move(*socket),
        ViciConnection::Handlers{
            [this](const std::string &name, const Section &event) { events_.emplace_back(name, event.value("n")); },
            [this](const std::string &reason) { ended_ = reason; }});
  }
  void ask(const std::string &command, Section message = {}, milliseconds deadline = seconds(10)) {
    connection_->request(
        command, std::move(message), deadline,
        [this](const foundation::Result<Section> &reply) { replies_.push_back(reply); });
  }

  support::TemporaryFolder folder_;
  ViciServer server_{folder_.path("vici")};
  std::unique_ptr<ViciConnection> connection_;
  std::vector<foundation::Result<Section>> replies_;
  std::vector<std::pair<std::string, std::string>> events_;
  std::optional<std::string> ended_;
};

TEST_F(ViciConnectionTest, AsksOneAfterAnother) {
  server_.answer("version", Section().add("daemon", "charon"));
  server_.answer("load", [](const Section &request) {
    return std::vector<Packet>{{PacketType::response, "", Section().add("got", request.value("k"))}};
  });
  ask("version");
  ask("load", Section().add("k", "v"));
  ask("load", Section().add("k", foundation::Secret("s")));
  ASSERT_TRUE(runUntil([&] { return replies_.size() == 3; }));
  EXPECT_EQ(replies_[0]->value("daemon"), "charon");
  EXPECT_EQ(replies_[1]->value("got"), "v");
  EXPECT_EQ(replies_[2]->value("got"), "s");
  EXPECT_EQ(server_.asked(), (std::vector<std::string>{"version", "load", "load"}));
  EXPECT_FALSE(ended_);
}

TEST_F(ViciConnectionTest, TellsWhatDidNotSucceed) {
  server_.answer("initiate", Section().add("success", "no").add("errmsg", "no such thing"));
  server_.answer("terminate", Section().add("success", "no"));
  ask("initiate");
  ask("terminate");
  ask("dance");
  ASSERT_TRUE(runUntil([&] { return replies_.size() == 3; }));
  EXPECT_EQ(replies_[0].error().message, "no such thing");
  EXPECT_EQ(replies_[1].error().message, "terminate did not succeed");
  EXPECT_EQ(replies_[2].error().code, ViciConnection::kUnknownCommand);
}

TEST_F(ViciConnectionTest, HearsEventsInBetween) {
  server_.answer("list-sas", [](const Section &) {
    return std::vector<Packet>{{PacketType::event, "list-sa", Section().add("n", "1")},
                               {PacketType::event, "list-sa", Section().add("n", "2")},
                               {PacketType::response, "", {}}};
  });
  bool listening = false;
  connection_->listen("list-sa", seconds(10), [&](const auto &reply) { listening = bool(reply); });
  ask("list-sas");
  ASSERT_TRUE(runUntil([&] { return replies_.size() == 1; }));
  EXPECT_TRUE(listening);
  EXPECT_EQ(events_, (std::vector<std::pair<std::string, std::string>>{{"list-sa", "1"}, {"list-sa", "2"}}));
  server_.say("list-sa", Section().add("n", "3"));
  ASSERT_TRUE(runUntil([&] { return events_.size() == 3; }));
}

TEST_F(ViciConnectionTest, AnAnswerTooLateIsTheEnd) {
  server_.stayOpen("initiate");
  ask("initiate", {}, milliseconds(30));
  ask("version");
  ASSERT_TRUE(runUntil([&] { return ended_.has_value(); }));
  EXPECT_EQ(*ended_, "does not answer (initiate)");
  EXPECT_TRUE(replies_.empty());
}

TEST_F(ViciConnectionTest, TellsTheEndOfTheStream) {
  server_.stayOpen("initiate");
  ask("initiate");
  server_.waitFor("initiate");
  server_.hangUp();
  ASSERT_TRUE(runUntil([&] { return ended_.has_value(); }));
  EXPECT_EQ(*ended_, "has closed its control socket");
  EXPECT_TRUE(replies_.empty());
}

TEST_F(ViciConnectionTest, WhatMakesNoSenseIsTheEnd) {
  server_.answer("version", Section());
  ask("version");
  ASSERT_TRUE(runUntil([&] { return replies_.size() == 1; }));
  server_.sendBytes({0, 0, 0, 1, 99});
  ASSERT_TRUE(runUntil([&] { return ended_.has_value(); }));
  EXPECT_EQ(*ended_, "sends what makes no sense: a packet of the unknown type 99");
}

TEST_F(ViciConnectionTest, AnAnswerThatNobodyWaitsForIsTheEnd) {
  server_.answer("version", Section());
  ask("version");
  ASSERT_TRUE(runUntil([&] { return replies_.size() == 1; }));
  server_.sendBytes({0, 0, 0, 1, 5});
  ASSERT_TRUE(runUntil([&] { return ended_.has_value(); }));
  EXPECT_EQ(*ended_, "answers what nobody asked");
}

TEST_F(ViciConnectionTest, AHandlerMayDestroyIt) {
  server_.answer("version", Section());
  bool replied = false;
  connection_->request(
      "version", {}, seconds(10),
      [&](const auto &) {
        connection_.reset();
        replied = true;
      });
  connection_->request(
      "version", {}, seconds(10), [](const auto &) { FAIL(); });
  ASSERT_TRUE(runUntil([&] { return replied; }));
}

TEST_F(ViciConnectionTest, ALargeRequestGoesInPieces) {
  server_.answer("load", [](const Section &request) {
    return std::vector<Packet>{
        {PacketType::response, "", Section().add("items", std::to_string(request.list("l").size()))}};
  });
  ask("load", Section().add("l", Section::List(7, std::string(60000, 'x'))));
  ASSERT_TRUE(runUntil([&] { return replies_.size() == 1; }));
  EXPECT_EQ(replies_[0]->value("items"), "7");
}

TEST_F(ViciConnectionTest, ALargeAnswerComesInPieces) {
  server_.answer("list", Section().add("l", Section::List(7, std::string(60000, 'x'))));
  ask("list");
  ASSERT_TRUE(runUntil([&] { return replies_.size() == 1; }));
  EXPECT_EQ(replies_[0]->list("l").size(), 7U);
}

TEST_F(ViciConnectionTest, WhatCannotBeWrittenIsAnError) {
  ask("load", Section().add("k", std::string(70000, 'x')));
  ASSERT_TRUE(runUntil([&] { return replies_.size() == 1; }));
  EXPECT_FALSE(replies_[0]);
  EXPECT_TRUE(server_.asked().empty());
}

TEST_F(ViciConnectionTest, ItsSocketIsNotInherited) {
  EXPECT_NE(::fcntl(connection_->socket(), F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(ViciConnectionTest, NobodyListens) {
  const auto socket = ViciConnection::connect(folder_.path("nobody"));
  ASSERT_FALSE(socket);
  EXPECT_EQ(socket.error().code, ENOENT);
  EXPECT_EQ(ViciConnection::connect(std::string(200, 'x')).error().code, ENAMETOOLONG);
}

TEST_F(ViciConnectionTest, WaitsToBeLetInWhenItIsAskedTo) {
  const helper::testing::CrowdedListener crowded(folder_.path("crowded"));
  const auto refused = ViciConnection::connect(folder_.path("crowded"));
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().code, EAGAIN);
  std::thread daemon([&] { crowded.letOneIn(); });
  const auto socket = ViciConnection::connect(folder_.path("crowded"), seconds(10));
  daemon.join();
  ASSERT_TRUE(socket) << socket.error().message;
  EXPECT_NE(::fcntl(socket->get(), F_GETFL) & O_NONBLOCK, 0);
  EXPECT_NE(::fcntl(socket->get(), F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(ViciConnectionTest, AnExchangeWaitsForItsAnswer) {
  server_.answer("version", [](const Section &) {
    return std::vector<Packet>{{PacketType::event, "noise", Section()},
                               {PacketType::response, "", Section().add("daemon", "charon")}};
  });
  server_.stayOpen("initiate");
  auto exchange = ViciExchange::connect(folder_.path("vici"), milliseconds(300));
  ASSERT_TRUE(exchange);
  EXPECT_EQ(exchange->request("version", {})->value("daemon"), "charon");
  EXPECT_EQ(exchange->request("dance", {}).error().code, ViciConnection::kUnknownCommand);
  const auto late = exchange->request("initiate", {});
  ASSERT_FALSE(late);
  EXPECT_EQ(late.error().code, ETIMEDOUT);
}

TEST_F(ViciConnectionTest, AnExchangeTellsTheEnd) {
  server_.answer("version", [this](const Section &) {
    return std::vector<Packet>{{PacketType::confirmation, "", {}}};
  });
  auto exchange = ViciExchange::connect(folder_.path("vici"), seconds(10));
  EXPECT_TRUE(exchange->request("version", {}));
  server_.hangUp();
  const auto ended = exchange->request("version", {});
  EXPECT_FALSE(ended);
}

}  // namespace
