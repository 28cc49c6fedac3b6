#include <gtest/gtest.h>

#include <limits>

#include "platform/fake/FakePlatform.h"
#include "qolmhelper/PPPStatus.h"

namespace TN {
namespace {

using platform::fake::FakePlatform;
using vpnctl::Value;

TEST(NSStringFromPPPStatus, HasATextForEachPhase) {
  const std::vector<std::string> texts{"PPP Network connection disconnected",
                                       "Initializing PPP network connection",
                                       "Connecting PPP link",
                                       "PPP Dial on traffic",
                                       "Negotiating PPP link",
                                       "PPP Authenticating",
                                       "PPP Waiting for call back",
                                       "PPP negotiating network",
                                       "PPP Connected",
                                       "Terminating PPP connection",
                                       "Disconnecting PPP link",
                                       "PPP Holding link off",
                                       "PPP connection suspended",
                                       "PPP waiting for redial"};
  for (std::size_t i = 0; i < texts.size(); ++i)
    EXPECT_EQ(NSStringFromPPPStatus(static_cast<std::int32_t>(i)), texts[i]);
}

TEST(NSStringFromPPPStatus, KnowsNoOtherStatus) {
  using Limits = std::numeric_limits<std::int32_t>;
  for (const std::int32_t status : {14, 15, 255, -1, -2, Limits::min(), Limits::max()})
    EXPECT_STREQ(NSStringFromPPPStatus(status), "Unknown status") << status;
}

std::int32_t minorStatusOf(const Value &extendedStatus) {
  FakePlatform &platform = FakePlatform::instance();
  platform.reset();
  platform.extendedStatusBeforeStart = extendedStatus;
  return GetMinorStatus(platform::SCNetworkConnectionCreateWithServiceID("id", nullptr, {}));
}

Value withPPP(const Value &ppp) { return Value::Dictionary{{"PPP", ppp}}; }
Value withStatus(const Value &status) { return withPPP(Value::Dictionary{{"Status", status}}); }

TEST(GetMinorStatus, ReadsThePhase) {
  for (std::int32_t phase = 0; phase <= 13; ++phase) EXPECT_EQ(minorStatusOf(withStatus(phase)), phase);
  EXPECT_EQ(minorStatusOf(withStatus(4711)), 4711);
  EXPECT_EQ(minorStatusOf(withStatus(std::uint64_t{8})), 8);
  EXPECT_EQ(minorStatusOf(withStatus(8.0)), 8);
  EXPECT_EQ(minorStatusOf(withStatus(std::int64_t{std::numeric_limits<std::int32_t>::min()})),
            std::numeric_limits<std::int32_t>::min());
}

TEST(GetMinorStatus, IsMinusOneWithoutAPhase) {
  EXPECT_EQ(minorStatusOf(Value()), -1);
  EXPECT_EQ(minorStatusOf(Value::Dictionary{}), -1);
  EXPECT_EQ(minorStatusOf(withPPP(Value::Dictionary{})), -1);
}

TEST(GetMinorStatus, IsMinusOneForAnotherType) {
  EXPECT_EQ(minorStatusOf(withPPP("Connected")), -1);
  EXPECT_EQ(minorStatusOf(withPPP(8)), -1);
  EXPECT_EQ(minorStatusOf(withPPP(Value::Array{8})), -1);
  EXPECT_EQ(minorStatusOf(withStatus("8")), -1);
  EXPECT_EQ(minorStatusOf(withStatus(true)), -1);
}

TEST(GetMinorStatus, IsMinusOneForANumberThatDoesNotConvert) {
  EXPECT_EQ(minorStatusOf(withStatus(std::int64_t{1} << 31)), -1);
  EXPECT_EQ(minorStatusOf(withStatus(std::numeric_limits<std::uint64_t>::max())), -1);
  EXPECT_EQ(minorStatusOf(withStatus(7.5)), -1);
  EXPECT_EQ(minorStatusOf(withStatus(std::numeric_limits<double>::quiet_NaN())), -1);
  EXPECT_EQ(minorStatusOf(withStatus(std::numeric_limits<double>::infinity())), -1);
}

}  // namespace
}  // namespace TN
