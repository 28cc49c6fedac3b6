#include <gtest/gtest.h>

#include "platform/SCErrorState.h"
#include "platform/fake/FakePlatform.h"
#include "qolmhelper/TNConnectorPPP.h"
#include "tests/support/TemporaryFolder.h"

namespace TN {
namespace {

using platform::fake::extendedStatus;
using platform::fake::FakePlatform;
using platform::fake::StatusChange;
using vpnctl::Secret;
using vpnctl::Value;

// A connector whose connection is simply there, or is not, with a reason.
class TestConnector : public TNConnectorPPP {
 public:
  using TNConnectorPPP::TNConnectorPPP;
  platform::SCNetworkConnectionRef connection() override {
    if (asked) asked();
    if (failsWith) {
      platform::setSCError(*failsWith);
      return nullptr;
    }
    if (!connection_) {
      platform::SCNetworkConnectionContext context;
      context.info = static_cast<TNConnectorPPP *>(this);
      connection_ = platform::SCNetworkConnectionCreateWithServiceID("id", PPPNetworkConnectionCallBack, context);
    }
    return connection_;
  }
  std::optional<std::int32_t> failsWith;
  std::function<void()> asked;

 private:
  platform::SCNetworkConnectionRef connection_;
};

class TNConnectorPPPTest : public testing::Test {
 protected:
  TNConnectorPPPTest() {
    platform_.reset();
    support::writeFile(folder_.path("ppp.log"), "");
    platform_.pppLogPath = folder_.path("ppp.log");
  }
  ~TNConnectorPPPTest() override {
    if (connector_ && connector_->logTailer()) connector_->logTailer()->stop();
  }

  std::string connect() {
    testing::internal::CaptureStderr();
    connector_->connect();
    return testing::internal::GetCapturedStderr();
  }
  std::string change(std::int32_t status, std::int32_t minorStatus, std::int32_t error) {
    testing::internal::CaptureStderr();
    connector_->connectionStatusChanged(status, minorStatus, error);
    return testing::internal::GetCapturedStderr();
  }
  // A tailer that runs already says so when it is started.
  bool tailerRuns() {
    testing::internal::CaptureStderr();
    connector_->logTailer()->tail([](const std::optional<std::string> &) {});
    const bool runs = testing::internal::GetCapturedStderr().find("Already running!\n") != std::string::npos;
    connector_->logTailer()->stop();
    return runs;
  }
  std::size_t count(const std::string &call) { return platform_.calls(call + "(").size(); }

  FakePlatform &platform_ = FakePlatform::instance();
  support::TemporaryFolder folder_;
  support::TemporaryPlace place_{folder_};
  std::shared_ptr<TestConnector> connector_ = std::make_shared<TestConnector>("s", "u", Secret("p"), Secret("x"));
};

TEST_F(TNConnectorPPPTest, HoldsTheFourCredentials) {
  EXPECT_EQ(connector_->server(), "s");
  EXPECT_EQ(connector_->username(), "u");
  EXPECT_EQ(connector_->password(), Secret("p"));
  EXPECT_EQ(connector_->sharedSecret(), Secret("x"));
  const auto absent = std::make_shared<TestConnector>(std::nullopt, std::nullopt, std::nullopt, std::nullopt);
  EXPECT_FALSE(absent->server() || absent->username() || absent->password() || absent->sharedSecret());
}

TEST_F(TNConnectorPPPTest, TheBaseHasNoConnectionWhateverIsSet) {
  const auto base = std::make_shared<TNConnectorPPP>("s", "u", Secret("p"), Secret("x"));
  base->setConnection(connector_->connection());
  EXPECT_EQ(base->connection(), nullptr);
}

TEST_F(TNConnectorPPPTest, DisconnectStopsItsConnectionByForce) {
  connector_->disconnect();
  EXPECT_EQ(platform_.calls().back(), "SCNetworkConnectionStop(connection, true)");
}

TEST_F(TNConnectorPPPTest, WithoutAConnectionTheTailerIsLeftRunning) {
  connector_->failsWith = 1004;
  EXPECT_EQ(connect(), "Error: No such entry, code: 1004\n");
  EXPECT_EQ(count("SCNetworkConnectionScheduleWithRunLoop"), 0u);
  EXPECT_TRUE(tailerRuns());
}

TEST_F(TNConnectorPPPTest, ANullConnectionWithoutAnErrorSaysSo) {
  connector_->failsWith = 0;
  EXPECT_EQ(connect(), "Error: No error, code: 0\n");
}

TEST_F(TNConnectorPPPTest, AfterTheAttemptTheTailerIsStopped) {
  platform_.up = {StatusChange{0, extendedStatus(0), 0, {}}};
  EXPECT_EQ(connect(), "PPP Network connection disconnected\nExit.\n");
  EXPECT_FALSE(tailerRuns());
}

TEST_F(TNConnectorPPPTest, WithoutALogTheAttemptIsTheSame) {
  platform_.pppLogPath = folder_.path("nothing");
  platform_.up = {StatusChange{0, extendedStatus(0), 0, {}}};
  const std::string error = connect();
  EXPECT_NE(error.find("Could not open file /var/log/ppp.log\n"), std::string::npos);
  EXPECT_TRUE(error.ends_with("\nPPP Network connection disconnected\nExit.\n"));
  EXPECT_EQ(connector_->logTailer(), nullptr);
}

TEST_F(TNConnectorPPPTest, SchedulesOnThisThreadsLoopAndStartsWithoutOptionsOrLinger) {
  platform_.up = {StatusChange{0, extendedStatus(0), 0, {}}};
  connect();
  const std::vector<std::string> calls = platform_.calls();
  EXPECT_EQ(
      (std::vector<std::string>(calls.begin(), calls.begin() + 6)),
      (std::vector<std::string>{"fopen(/var/log/ppp.log)",
                                "SCNetworkConnectionCreateWithServiceID(\"id\", callback, {0, info, null, null, null})",
                                "SCNetworkConnectionScheduleWithRunLoop(connection, current, kCFRunLoopDefaultMode)",
                                "SCNetworkConnectionGetStatus(connection)",
                                "SCNetworkConnectionStart(connection, null, false)", "CFRunLoopRun()"}));
}

TEST_F(TNConnectorPPPTest, AFailedSchedulingEndsTheAttemptWithoutAWord) {
  platform_.fail("SCNetworkConnectionScheduleWithRunLoop", 1001);
  EXPECT_EQ(connect(), "Exit.\n");
  EXPECT_EQ(count("SCNetworkConnectionGetStatus"), 0u);
  EXPECT_FALSE(tailerRuns());
}

TEST_F(TNConnectorPPPTest, AFailedSchedulingWithoutAnErrorCarriesOn) {
  platform_.fail("SCNetworkConnectionScheduleWithRunLoop", 0);
  platform_.up = {StatusChange{0, extendedStatus(0), 0, {}}};
  EXPECT_EQ(connect(), "PPP Network connection disconnected\nExit.\n");
}

TEST_F(TNConnectorPPPTest, AFailedStartEndsTheAttemptWithoutAWord) {
  platform_.fail("SCNetworkConnectionStart", 5001);
  EXPECT_EQ(connect(), "Exit.\n");
  EXPECT_EQ(count("CFRunLoopRun"), 0u);
  EXPECT_FALSE(tailerRuns());
}

TEST_F(TNConnectorPPPTest, AFailedStartWithoutAnErrorCarriesOn) {
  platform_.fail("SCNetworkConnectionStart", 0);
  platform_.up = {StatusChange{0, extendedStatus(0), 0, {}}};
  EXPECT_EQ(connect(), "PPP Network connection disconnected\nExit.\n");
}

TEST_F(TNConnectorPPPTest, EveryOtherStatusEndsTheAttemptWithItsText) {
  const std::map<std::int32_t, std::string> texts{{-1, "Service is invalid.  Weird.\n"},
                                                  {1, "Service is already connecting.\n"},
                                                  {2, "Service is already connected.\n"},
                                                  {3, "Service is disconnecting.\n"},
                                                  {4, "Unexpected status.\n"},
                                                  {-2, "Unexpected status.\n"}};
  for (const auto &[status, text] : texts) {
    connector_ = std::make_shared<TestConnector>("s", "u", Secret("p"), Secret("x"));
    platform_.statusBeforeStart = status;
    EXPECT_EQ(connect(), text + "Exit.\n");
    EXPECT_EQ(count("SCNetworkConnectionStart") + count("SCNetworkConnectionStop") + count("CFRunLoopRun"), 0u);
    EXPECT_FALSE(tailerRuns()) << status;
  }
}

TEST_F(TNConnectorPPPTest, StatusChangesWhileUpOnlyPrintTheirLine) {
  for (const std::int32_t status : {-1, 1, 2, 3}) EXPECT_EQ(change(status, 5, 1001), "PPP Authenticating\n");
  EXPECT_TRUE(platform_.calls().empty());
}

TEST_F(TNConnectorPPPTest, DisconnectedTellsTheErrorThenTheCauseThenTheStatusAndStopsTheLoop) {
  platform_.extendedStatusBeforeStart = extendedStatus(0, 8);
  EXPECT_EQ(
      change(0, 0, 5001),
      "Error: No such network service\nError: Exec format error, cause: 8\nPPP Network connection disconnected\n");
  EXPECT_EQ(platform_.calls().back(), "CFRunLoopStop(current)");
}

TEST_F(TNConnectorPPPTest, ACauseOf0IsToldToo) {
  platform_.extendedStatusBeforeStart = extendedStatus(0, 0);
  EXPECT_EQ(change(0, 0, 0), "Error: No error, cause: 0\nPPP Network connection disconnected\n");
}

TEST_F(TNConnectorPPPTest, WithoutErrorAndCauseOnlyTheStatusIsTold) {
  for (const Value &status : {Value(), Value(Value::Dictionary{}), extendedStatus(0)}) {
    connector_ = std::make_shared<TestConnector>("s", "u", Secret("p"), Secret("x"));
    platform_.extendedStatusBeforeStart = status;
    EXPECT_EQ(change(0, -1, 0), "Unknown status\n");
  }
}

TEST_F(TNConnectorPPPTest, TheCauseIsReadAsAnIntegerWhateverItIs) {
  platform_.extendedStatusBeforeStart = Value::Dictionary{{"PPP", Value::Dictionary{{"LastCause", "16 or so"}}}};
  EXPECT_EQ(change(0, 0, 0), "Error: Device or resource busy, cause: 16\nPPP Network connection disconnected\n");
}

TEST_F(TNConnectorPPPTest, APPPEntryThatIsNoDictionaryHasNoCause) {
  platform_.extendedStatusBeforeStart = Value::Dictionary{{"PPP", "text"}};
  EXPECT_EQ(change(0, 0, 0), "PPP Network connection disconnected\n");
}

// Whatever the last call has left behind.
TEST_F(TNConnectorPPPTest, TheShortFormHasNoError) {
  connector_->connection();
  platform::setSCError(2002);
  testing::internal::CaptureStderr();
  connector_->connectionStatusChanged(0, 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "PPP Network connection disconnected\n");
}

TEST_F(TNConnectorPPPTest, TheCallbackReadsTheErrorFirstAndTheStatusItself) {
  platform_.readingStatusClobbersError = true;
  // The callback's own argument is of another moment: it is not used.
  platform_.up = {StatusChange{1, extendedStatus(2), 0, 0}, StatusChange{0, extendedStatus(0), 2002, 2}};
  EXPECT_EQ(connect(),
            "Connecting PPP link\nError: The VPN service is not there\nPPP Network connection disconnected\nExit.\n");
}

TEST_F(TNConnectorPPPTest, TheCallbackReadsStatusThenExtendedStatus) {
  const auto connection = connector_->connection();
  platform_.reset();
  testing::internal::CaptureStderr();
  PPPNetworkConnectionCallBack(connection, 0, static_cast<TNConnectorPPP *>(connector_.get()));
  testing::internal::GetCapturedStderr();
  const std::vector<std::string> calls = platform_.calls();
  ASSERT_GE(calls.size(), 2u);
  EXPECT_EQ(calls[0], "SCNetworkConnectionGetStatus(connection)");
  EXPECT_EQ(calls[1], "SCNetworkConnectionCopyExtendedStatus(connection)");
}

TEST_F(TNConnectorPPPTest, LivesUntilItsCallbackReturns) {
  const auto connection = connector_->connection();
  const std::weak_ptr<TestConnector> seen = connector_;
  bool livedInside = false;
  connector_->asked = [&] {
    connector_.reset();
    livedInside = !seen.expired();
  };
  testing::internal::CaptureStderr();
  PPPNetworkConnectionCallBack(connection, 0, static_cast<TNConnectorPPP *>(connector_.get()));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Unknown status\n");
  EXPECT_TRUE(livedInside);
  EXPECT_TRUE(seen.expired());
}

using TNConnectorPPPDeathTest = TNConnectorPPPTest;

TEST_F(TNConnectorPPPDeathTest, ACallbackWithoutItsConnectionIsAFailedAssertion) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_EXIT(PPPNetworkConnectionCallBack(nullptr, 0, nullptr), testing::KilledBySignal(SIGABRT),
              "^Assertion failed: \\(connection != NULL\\), function PPPNetworkConnectionCallBack, "
              "file TNConnectorPPP, line 26\\.");
}

TEST_F(TNConnectorPPPDeathTest, ACallbackWithoutItsConnectorIsAFailedAssertion) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  const auto connection = connector_->connection();
  EXPECT_EXIT(PPPNetworkConnectionCallBack(connection, 0, nullptr), testing::KilledBySignal(SIGABRT),
              "^Assertion failed: \\(info != NULL\\), function PPPNetworkConnectionCallBack, "
              "file TNConnectorPPP, line 27\\.");
}

}  // namespace
}  // namespace TN
