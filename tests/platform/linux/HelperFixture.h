// A helper of the test's own: the scripted one, copied into a temporary folder that also holds its stores.

#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/Security.h"
#include "platform/SystemConfiguration.h"
#include "tests/support/TemporaryFolder.h"

namespace platform::testing {

class HelperFixture : public ::testing::Test {
 protected:
  HelperFixture();
  ~HelperFixture() override;

  // The right "system.preferences", which starts the helper. Fails the test without it.
  AuthorizationRef authorize();
  SCPreferencesRef openPreferences(const AuthorizationRef &authorization);
  // A service over TUNNEL_TYPE whose server is ADDRESS, added to the current set; not committed.
  SCNetworkServiceRef addService(const SCPreferencesRef &preferences, const std::string &name,
                                 const std::string &address, const std::string &tunnelType = "PPTP");
  // The same, committed; its identifier.
  std::string commitService(const AuthorizationRef &authorization, const std::string &address);

  // The process ids of the helpers that run.
  std::vector<std::string> helperProcesses() const;

  std::string preferencesPath() const { return folder_.path("etc/preferences.plist"); }
  std::string logPath() const { return folder_.path("ppp.log"); }
  const support::TemporaryFolder &folder() const { return folder_; }

  // What the calls of one connection's callback saw, in order.
  struct Moment {
    SCNetworkConnectionStatus argument;
    SCNetworkConnectionStatus status;
    std::int32_t error;
    vpnctl::Value extendedStatus;
  };
  struct Recorder {
    std::vector<Moment> moments;
    SCNetworkConnectionStatus stopAt = -1;  // asks for the end at the first moment of this status
    bool stopped = false;
    SCNetworkConnectionStatus signalAt = -1;  // sends SIGTERM to the process signalTo at that moment
    int signalTo = 0;
    std::vector<std::int64_t> phases() const;
  };
  static void record(SCNetworkConnectionRef connection, SCNetworkConnectionStatus status, void *info);
  // Scheduled on this thread's loop; the loop ends with the first disconnected.
  static SCNetworkConnectionRef connect(const std::string &serviceID, Recorder &recorder);

 private:
  support::TemporaryFolder folder_;
};

// The program that AuthorizationCopyRights starts from now on.
void setHelperPath(const std::string &path);

}  // namespace platform::testing
