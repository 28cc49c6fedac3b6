// The protocol that is Linux's only.

#include "qolmhelper/TNConnectorPPTP.h"
#include "tests/qolmhelper/ServiceFixture.h"

namespace TN {
namespace {

class RefusedPPTPTest : public ServiceFixture {
 protected:
  RefusedPPTPTest() { use(make<TNConnectorPPTP>()); }
};

TEST_F(RefusedPPTPTest, NothingIsCreatedAndTheFirstLineSaysWhy) {
  addService("Corvanelle");
  EXPECT_EQ(create(), platform::kSCStatusConnectionIgnore);
  EXPECT_NE(error_.find("] This macOS has no PPTP: "), std::string::npos) << error_;
  EXPECT_TRUE(error_.ends_with("\nError creating PPTP interface!\n")) << error_;
  for (const char *const call : {"SCNetworkInterfaceCreateWithInterface", "SCNetworkServiceCreate"})
    EXPECT_EQ(count(call), 0u) << call;
  expectNothingStored({"Corvanelle"});
}

}  // namespace
}  // namespace TN
