// What tests of the protocols' connectors share: a connector on the fake platform, and a look at what it left there.

#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/fake/FakePlatform.h"
#include "qolmhelper/TNConnectorPPP.h"

namespace TN {

inline constexpr const char *kFirstID = "00000000-0000-4000-8000-000000000001";

class ServiceFixture : public testing::Test {
 public:
  // A protocol's connector, and what their common base does not know.
  struct Made {
    std::shared_ptr<TNConnectorPPP> connector;
    std::function<std::int32_t()> createConnection;
  };

  template <class Connector>
  static Made make(std::optional<std::string> server = "192.0.2.1", std::optional<std::string> username = "ann") {
    auto connector =
        std::make_shared<Connector>(std::move(server), std::move(username), vpnctl::Secret("pw"), vpnctl::Secret("ss"));
    connector->authorize();
    return {connector, [connector] { return connector->createConnection(); }};
  }

 protected:
  ServiceFixture() { platform_.reset(); }

  void use(Made made) {
    connector_ = std::move(made.connector);
    createConnection_ = std::move(made.createConnection);
  }

  void addService(std::optional<std::string> name) {
    platform::fake::Service service;
    service.serviceID = "id of " + name.value_or("nothing") + " " + std::to_string(platform_.services.size());
    service.name = std::move(name);
    platform_.services.push_back(service);
  }
  // Runs createConnection with standard error caught.
  std::int32_t create() {
    testing::internal::CaptureStderr();
    const std::int32_t result = createConnection_();
    error_ = testing::internal::GetCapturedStderr();
    return result;
  }
  // What it called, in order; of the keychain, which TNKeyChain's test is for, the first call only.
  std::vector<std::string> steps() const {
    std::vector<std::string> calls;
    for (const std::string &call : platform_.calls("S")) {
      if (call.starts_with("Sec") && !call.starts_with("SecKeychainCopyDomainDefault")) continue;
      calls.push_back(call.starts_with("SCNetworkInterfaceSetConfiguration") ? call.substr(0, call.find('(')) : call);
    }
    return calls;
  }
  std::vector<std::string> storedNames() const {
    std::vector<std::string> names;
    for (const platform::fake::Service &service : platform_.services) names.push_back(service.name.value_or("(none)"));
    return names;
  }
  std::size_t count(const std::string &call) const { return platform_.calls(call + "(").size(); }
  void expectNothingStored(const std::vector<std::string> &names) const {
    EXPECT_EQ(storedNames(), names);
    EXPECT_TRUE(platform_.items.empty());
    EXPECT_EQ(count("SCPreferencesCommitChanges"), 0u);
    EXPECT_EQ(count("SCNetworkConnectionCreateWithServiceID"), 0u);
  }

  platform::fake::FakePlatform &platform_ = platform::fake::FakePlatform::instance();
  std::shared_ptr<TNConnectorPPP> connector_;  // a deriving fixture makes it
  std::function<std::int32_t()> createConnection_;
  std::string error_;
};

}  // namespace TN
