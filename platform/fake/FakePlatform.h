// The fake backend as its user drives it: a small system in memory that records every call of the platform API and does
// what it was told to.
//
// Usual sequence in a test of classes: FakePlatform::instance().reset(); set the scene; run the code under test;
// compare calls(). A program that is run as a process takes its scene from the script file that VPNCTL_FAKE_SCRIPT
// names (FakeScript.h), appends its calls to the file VPNCTL_FAKE_RECORD, and finds its PPP log at VPNCTL_FAKE_PPP_LOG.
//
// Thread rule: calls may be recorded on any thread; everything else belongs to the thread of the run loop.

#pragma once

#include <csignal>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "foundation/Value.h"

namespace platform::fake {

// A status change: what the callback finds.
struct StatusChange {
  std::int32_t status = 0;
  vpnctl::Value extendedStatus;          // null: there is none
  std::int32_t error = 0;                // SCError()
  std::optional<std::int32_t> argument;  // of the callback, when it is not the status
};
// TEXT is appended to the PPP log.
struct LogText {
  std::string text;
};
// A signal to this process.
struct Raise {
  int signal = SIGUSR1;
};
using Step = std::variant<StatusChange, LogText, Raise>;

// {"PPP": {"Status": PHASE, "LastCause": CAUSE}}.
vpnctl::Value extendedStatus(std::int32_t phase, std::optional<std::int32_t> cause = {});

struct Service {
  std::string serviceID;
  std::optional<std::string> name;
  std::vector<std::string> layers;  // {"PPP", "PPTP", "IPv4"}: topmost first
  vpnctl::Value configuration;      // the interface's
  std::map<std::string, vpnctl::Value> extendedConfigurations;
  std::map<std::string, vpnctl::Value> protocols;  // by type; the configuration
  bool inCurrentSet = false;
};

struct KeychainItem {
  std::string label, account, service, description, secret;
  std::string accessDescriptor;
  std::vector<std::string> trustedPaths;
};

class FakePlatform {
 public:
  static FakePlatform &instance();

  // A fresh system: one empty set, an empty keychain, nothing recorded, nothing fails, no PPP log, and nothing left in
  // this thread's run loop.
  void reset();

  // ---- The scene
  std::vector<Service> services;  // as stored; a commit replaces them
  bool hasCurrentSet = true;
  std::vector<KeychainItem> items;
  std::int32_t statusBeforeStart = 0;
  vpnctl::Value extendedStatusBeforeStart;
  std::vector<Step> up;                     // what follows a start
  std::vector<Step> down;                   // what follows a stop; a clean end with cause 5 unless set
  std::weak_ptr<void> lastAuthorization;    // not scene but result: the one that was made last
  std::string pppLogPath;                   // stands for /var/log/ppp.log
  bool readingStatusClobbersError = false;  // so that a program that asks for SCError() too late is caught

  // CALL fails with CODE: as the status it returns, or as SCError(), where 0 is a failure without an error. The first
  // AFTER calls still work, and TIMES calls fail. A start or a scheduling that fails without an error works all the
  // same.
  void fail(const std::string &call, std::int32_t code, int times = 1 << 30, int after = 0);
  // This process gets SIGNAL while it is inside CALL, or inside the one call with that number in the record, from 1.
  void raiseInside(const std::string &call, int signal);

  // ---- The record: "CALL(ARGUMENTS)", in order
  std::vector<std::string> calls() const;
  // Those whose names begin with PREFIX.
  std::vector<std::string> calls(const std::string &prefix) const;

  // ---- For the backend
  // Records the call; the code it is to fail with, if any.
  std::optional<std::int32_t> enter(const std::string &call, const std::string &arguments);
  // Identifiers count up from 1.
  std::string nextServiceID();

 private:
  FakePlatform();

  struct Failure {
    std::int32_t code = 0;
    int times = 0;
    int after = 0;
  };
  mutable std::mutex mutex_;  // guards the four below
  std::vector<std::string> calls_;
  std::map<std::string, Failure> failures_;
  std::map<std::string, int> signals_;
  int recordFile_ = -1;
  int serviceCount_ = 0;
};

}  // namespace platform::fake
