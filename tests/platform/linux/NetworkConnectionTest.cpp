#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "platform/linux/Authorization.h"
#include "tests/platform/linux/HelperFixture.h"

namespace platform {
namespace {

class NetworkConnectionTest : public testing::HelperFixture {
 protected:
  std::string service(const std::string &address) { return commitService(authorization, address); }

  const AuthorizationRef authorization = authorize();
  Recorder recorder;
};

using Phases = std::vector<std::int64_t>;

TEST_F(NetworkConnectionTest, TellsEachChangeOnceInOrderAndEndsAfterAStop) {
  recorder.stopAt = kSCNetworkConnectionConnected;
  const auto connection = connect(service("up"), recorder);
  EXPECT_EQ(SCNetworkConnectionGetStatus(connection), kSCNetworkConnectionDisconnected);
  ASSERT_TRUE(SCNetworkConnectionStart(connection, {}, false));
  CFRunLoopRun();
  EXPECT_EQ(recorder.phases(), (Phases{1, 2, 4, 5, 7, 8, 9, 10, 0}));
  EXPECT_EQ(recorder.moments.back().extendedStatus["PPP"]["LastCause"], vpnctl::Value(5));
  for (const auto &moment : recorder.moments) {
    EXPECT_EQ(moment.argument, moment.status);
    EXPECT_EQ(moment.error, 0);
  }
}

// All changes are told while the start still waits for its answer: each must come as a callback of its own, later, with
// what was true at its moment.
TEST_F(NetworkConnectionTest, KeepsWhatArrivesDuringACall) {
  recorder.stopAt = kSCNetworkConnectionConnected;
  const auto connection = connect(service("at-once"), recorder);
  ASSERT_TRUE(SCNetworkConnectionStart(connection, {}, false));
  EXPECT_TRUE(recorder.moments.empty());
  EXPECT_EQ(SCNetworkConnectionGetStatus(connection), kSCNetworkConnectionDisconnected);
  CFRunLoopRun();
  EXPECT_EQ(recorder.phases(), (Phases{1, 2, 4, 5, 7, 8, 9, 10, 0}));
}

TEST_F(NetworkConnectionTest, TellsTheCauseOfARefusal) {
  const auto connection = connect(service("refused"), recorder);
  ASSERT_TRUE(SCNetworkConnectionStart(connection, {}, false));
  CFRunLoopRun();
  EXPECT_EQ(recorder.phases(), (Phases{1, 2, 4, 5, 9, 10, 0}));
  EXPECT_EQ(recorder.moments.back().extendedStatus["PPP"]["LastCause"], vpnctl::Value(19));
}

TEST_F(NetworkConnectionTest, AStopBeforeTheStartIsRemembered) {
  const auto connection = connect(service("up"), recorder);
  EXPECT_TRUE(SCNetworkConnectionStop(connection, true));
  ASSERT_TRUE(SCNetworkConnectionStart(connection, {}, false));
  CFRunLoopRun();
  ASSERT_FALSE(recorder.moments.empty());
  EXPECT_EQ(recorder.phases().back(), 0);
  EXPECT_EQ(recorder.moments.back().extendedStatus["PPP"]["LastCause"], vpnctl::Value(5));
}

TEST_F(NetworkConnectionTest, StopsFromAnotherThread) {
  const auto connection = connect(service("up"), recorder);
  ASSERT_TRUE(SCNetworkConnectionStart(connection, {}, false));
  std::thread stopper([&] { SCNetworkConnectionStop(connection, true); });
  CFRunLoopRun();
  stopper.join();
  EXPECT_EQ(recorder.moments.back().extendedStatus["PPP"]["LastCause"], vpnctl::Value(5));
}

TEST_F(NetworkConnectionTest, IsStartedAgainAfterItsEnd) {
  const auto connection = connect(service("refused"), recorder);
  for (int i = 0; i < 2; ++i) {
    recorder.moments.clear();
    ASSERT_TRUE(SCNetworkConnectionStart(connection, {}, false));
    CFRunLoopRun();
    EXPECT_EQ(recorder.phases(), (Phases{1, 2, 4, 5, 9, 10, 0}));
  }
}

TEST_F(NetworkConnectionTest, OneLinkAtATime) {
  const auto connection = connect(service("at-once"), recorder);
  ASSERT_TRUE(SCNetworkConnectionStart(connection, {}, false));
  EXPECT_FALSE(SCNetworkConnectionStart(connection, {}, false));
  EXPECT_EQ(SCError(), kSCStatusFailed);
}

TEST_F(NetworkConnectionTest, ASecondObjectLearnsThatTheServiceIsUp) {
  const std::string identifier = service("at-once");
  const auto connection = connect(identifier, recorder);
  ASSERT_TRUE(SCNetworkConnectionStart(connection, {}, false));
  Recorder other;
  const auto second = connect(identifier, other);
  EXPECT_EQ(SCNetworkConnectionGetStatus(second), kSCNetworkConnectionConnected);
}

TEST_F(NetworkConnectionTest, AnUnknownServiceIsNoticedAtTheStart) {
  const auto connection = connect("6E3B3D6C-0000-4000-8000-000000000000", recorder);
  EXPECT_EQ(SCError(), 0);
  EXPECT_FALSE(SCNetworkConnectionStart(connection, {}, false));
  EXPECT_EQ(SCError(), kSCStatusConnectionNoService);
}

TEST_F(NetworkConnectionTest, AHelperThatDiesIsADisconnectionWithoutPPP) {
  const auto connection = connect(service("dies"), recorder);
  ASSERT_TRUE(SCNetworkConnectionStart(connection, {}, false));
  CFRunLoopRun();
  ASSERT_FALSE(recorder.moments.empty());
  EXPECT_EQ(recorder.moments.back().status, kSCNetworkConnectionDisconnected);
  EXPECT_EQ(recorder.moments.back().error, kSCStatusNoStoreServer);
  EXPECT_TRUE(recorder.moments.back().extendedStatus.isNull());
  EXPECT_FALSE(SCNetworkConnectionStart(connection, {}, false));
  EXPECT_EQ(SCError(), kSCStatusNoStoreServer);
  EXPECT_FALSE(SCPreferencesCreateWithAuthorization("test", {}, authorization));
  EXPECT_EQ(SCError(), kSCStatusNoPrefsSession);
}

// It may have left all traffic refused.
TEST_F(NetworkConnectionTest, AHelperThatDiesIsFollowedByOneThatTidiesUp) {
  const std::string follower = folder().path("follower");
  const std::string mark = folder().path("mark");
  support::writeFile(follower, "#!/bin/sh\n>" + mark + "\n");
  ASSERT_EQ(::chmod(follower.c_str(), 0700), 0);
  const auto connection = connect(service("dies"), recorder);
  ASSERT_EQ(std::rename(follower.c_str(), folder().path("vpnctl-helper").c_str()), 0);
  ASSERT_TRUE(SCNetworkConnectionStart(connection, {}, false));
  CFRunLoopRun();
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (::access(mark.c_str(), F_OK) < 0 && std::chrono::steady_clock::now() < until) std::this_thread::yield();
  EXPECT_EQ(::access(mark.c_str(), F_OK), 0);
}

TEST_F(NetworkConnectionTest, AHelperThatIsAskedToEndTakesTheLinkDownFirst) {
  recorder.signalAt = kSCNetworkConnectionConnected;
  recorder.signalTo = std::stoi(helperProcesses().at(0));
  const auto connection = connect(service("up"), recorder);
  ASSERT_TRUE(SCNetworkConnectionStart(connection, {}, false));
  CFRunLoopRun();
  EXPECT_EQ(recorder.phases(), (Phases{1, 2, 4, 5, 7, 8, 9, 10, 0}));
  EXPECT_EQ(recorder.moments.back().error, 0);
}

TEST_F(NetworkConnectionTest, UserOptionsAreLaidOverTheServiceForOneStart) {
  recorder.stopAt = kSCNetworkConnectionConnected;
  const auto connection = connect(service("refused"), recorder);
  const vpnctl::Value options =
      vpnctl::Value::Dictionary{{"PPP", vpnctl::Value::Dictionary{{kSCPropNetPPPCommRemoteAddress, "up"}}}};
  ASSERT_TRUE(SCNetworkConnectionStart(connection, options, false));
  CFRunLoopRun();
  EXPECT_EQ(recorder.phases(), (Phases{1, 2, 4, 5, 7, 8, 9, 10, 0}));
  EXPECT_FALSE(SCNetworkConnectionStart(connection, vpnctl::Value(1), false));
  EXPECT_EQ(SCError(), kSCStatusInvalidArgument);
}

TEST_F(NetworkConnectionTest, NullArgumentsFail) {
  EXPECT_FALSE(SCNetworkConnectionCreateWithServiceID({}, record, {}));
  EXPECT_EQ(SCError(), kSCStatusInvalidArgument);
  EXPECT_FALSE(SCNetworkConnectionScheduleWithRunLoop({}, CFRunLoopGetCurrent(), kCFRunLoopDefaultMode));
  EXPECT_FALSE(SCNetworkConnectionStart({}, {}, false));
  EXPECT_FALSE(SCNetworkConnectionStop({}, true));
  EXPECT_EQ(SCNetworkConnectionGetStatus({}), kSCNetworkConnectionInvalid);
  EXPECT_TRUE(SCNetworkConnectionCopyExtendedStatus({}).isNull());
}

TEST_F(NetworkConnectionTest, TheFirstCauseOfAChainOfFailuresSurvives) {
  EXPECT_FALSE(SCPreferencesCreateWithAuthorization("test", {}, {}));
  EXPECT_FALSE(SCNetworkServiceCopyAll({}).has_value());
  EXPECT_FALSE(SCNetworkConnectionCreateWithServiceID({}, record, {}));
  EXPECT_EQ(SCError(), kSCStatusNoPrefsSession);
}

TEST_F(NetworkConnectionTest, ContextIsRetainedAndReleased) {
  static int retained = 0;
  SCNetworkConnectionContext context;
  context.info = &retained;
  context.retain = [](const void *info) { return ++retained, info; };
  context.release = [](const void *) { --retained; };
  auto connection = SCNetworkConnectionCreateWithServiceID("X", record, context);
  EXPECT_EQ(retained, 1);
  connection.reset();
  EXPECT_EQ(retained, 0);
}

}  // namespace
}  // namespace platform
