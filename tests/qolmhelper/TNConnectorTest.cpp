#include <gtest/gtest.h>

#include <vector>

#include "foundation/DDLog.h"
#include "platform/fake/FakePlatform.h"
#include "qolmhelper/TNConnector.h"
#include "tests/qolmhelper/Backend.h"

namespace TN {
namespace {

using platform::fake::FakePlatform;

class RecordingLogger : public vpnctl::DDLogger {
 public:
  void logMessage(const vpnctl::DDLogMessage &message) override { messages.push_back(message); }
  std::vector<vpnctl::DDLogMessage> messages;
};

class TNConnectorTest : public testing::Test {
 protected:
  TNConnectorTest() {
    FakePlatform::instance().reset();
    vpnctl::DDLog::addLogger(logger_);
  }
  ~TNConnectorTest() override { vpnctl::DDLog::removeLogger(logger_); }

  void expectLogged(const std::string &text, std::uint32_t line) {
    ASSERT_EQ(logger_->messages.size(), 1u);
    const vpnctl::DDLogMessage &message = logger_->messages.front();
    EXPECT_EQ(message.message, text);
    EXPECT_EQ(message.line, line);
    EXPECT_FALSE(message.asynchronous);
    EXPECT_EQ(message.level, 31u);
    EXPECT_EQ(message.flag, 1u);
    EXPECT_EQ(message.context, 0);
    EXPECT_EQ(message.function, "-[TNConnector authorize]");
    EXPECT_EQ(message.file, "qolmhelper/TNConnector.cpp");
    EXPECT_EQ(message.tag, nullptr);
  }

  FakePlatform &platform_ = FakePlatform::instance();
  std::shared_ptr<RecordingLogger> logger_ = std::make_shared<RecordingLogger>();
  TNConnector connector_;
};

TEST_F(TNConnectorTest, AuthorizeObtainsTheRightAndKeepsTheReference) {
  EXPECT_EQ(connector_.auth(), nullptr);
  EXPECT_TRUE(connector_.authorize());
  EXPECT_NE(connector_.auth(), nullptr);
  EXPECT_TRUE(logger_->messages.empty());
  EXPECT_EQ(platform_.calls(),
            (std::vector<std::string>{
                "AuthorizationCreate(null, null, 19)",
                "AuthorizationCopyRights(authorization, [{\"system.preferences\", 0, null, 0}], null, 19, null)"}));
}

TEST_F(TNConnectorTest, AFailedCreationIsLogged) {
  platform_.fail("AuthorizationCreate", -60008);
  EXPECT_FALSE(connector_.authorize());
  EXPECT_EQ(connector_.auth(), nullptr);
  EXPECT_EQ(platform_.calls().size(), 1u);
  expectLogged("Failed to create AuthorizationRef.  Return code was -60008", 36);
}

TEST_F(TNConnectorTest, ARefusedRightIsLogged) {
  platform_.fail("AuthorizationCopyRights", -60005);
  EXPECT_FALSE(connector_.authorize());
  EXPECT_EQ(connector_.auth(), nullptr);
  expectLogged("Failed to authorize.  Return code was -60005", 44);
}

TEST_F(TNConnectorTest, AFailureLeavesAnEarlierAuthorizationAlone) {
  ASSERT_TRUE(connector_.authorize());
  const platform::AuthorizationRef first = connector_.auth();
  ASSERT_NE(first, nullptr);
  for (const char *const call : {"AuthorizationCopyRights", "AuthorizationCreate"}) {
    platform_.fail(call, -60006);
    EXPECT_FALSE(connector_.authorize()) << call;
    EXPECT_EQ(connector_.auth(), first) << call;
  }
}

TEST_F(TNConnectorTest, ASecondAuthorizeReplacesTheFirstWithoutFreeingIt) {
  ASSERT_TRUE(connector_.authorize());
  const std::weak_ptr<platform::Authorization> first = connector_.auth();
  ASSERT_TRUE(connector_.authorize());
  EXPECT_NE(connector_.auth(), first.lock());
  EXPECT_FALSE(first.expired());
}

TEST_F(TNConnectorTest, ARefusedAuthorizationIsNotFreed) {
  platform_.fail("AuthorizationCopyRights", -60005);
  EXPECT_FALSE(connector_.authorize());
  EXPECT_EQ(connector_.auth(), nullptr);
  EXPECT_FALSE(platform_.lastAuthorization.expired());
}

TEST_F(TNConnectorTest, WithoutALoggerAFailureIsSilent) {
  vpnctl::DDLog::removeLogger(logger_);
  platform_.fail("AuthorizationCreate", 1);
  testing::internal::CaptureStderr();
  EXPECT_FALSE(connector_.authorize());
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(TNConnectorTest, ConnectDoesNothing) {
  connector_.connect();
  EXPECT_TRUE(platform_.calls().empty());
}

TEST_F(TNConnectorTest, ConnectionIsAPlainProperty) {
  EXPECT_EQ(connector_.connection(), nullptr);
  const auto connection = platform::SCNetworkConnectionCreateWithServiceID("id", nullptr, {});
  connector_.setConnection(connection);
  EXPECT_EQ(connector_.connection(), connection);
}

TEST_F(TNConnectorTest, DisconnectStopsTheConnectionThatItsOwnGetterGives) {
  class Overriding : public TNConnector {
   public:
    platform::SCNetworkConnectionRef connection() override {
      return platform::SCNetworkConnectionCreateWithServiceID("id", nullptr, {});
    }
  };
  Overriding connector;
  connector.disconnect();
  EXPECT_EQ(platform_.calls("SCNetworkConnectionStop"),
            std::vector<std::string>{"SCNetworkConnectionStop(connection, true)"});

  connector_.disconnect();
  if (kRecordsCallsOnNothing) EXPECT_EQ(platform_.calls().back(), "SCNetworkConnectionStop(null, true)");
}

}  // namespace
}  // namespace TN
