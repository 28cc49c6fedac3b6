#include "tests/platform/linux/HelperFixture.h"

#include <csignal>
#include <filesystem>

#include "platform/linux/HelperPath.h"

namespace platform {

namespace {

std::string &currentPath() {
  static std::string path;
  return path;
}

}  // namespace

const char *helperPath() { return currentPath().c_str(); }
const char *helperSocket() {
  static std::string path;
  path = currentPath() + ".socket";
  return path.c_str();
}

namespace testing {

void setHelperPath(const std::string &path) { currentPath() = path; }

HelperFixture::HelperFixture() {
  const std::string program = folder_.path("vpnctl-helper");
  std::filesystem::copy_file(SCRIPTED_HELPER, program);
  setHelperPath(program);
}

HelperFixture::~HelperFixture() = default;

AuthorizationRef HelperFixture::authorize() {
  AuthorizationRef authorization;
  EXPECT_EQ(AuthorizationCreate(nullptr, nullptr, 19, &authorization), errAuthorizationSuccess);
  EXPECT_EQ(AuthorizationCopyRights(authorization, {{"system.preferences"}}, nullptr, 19, nullptr),
            errAuthorizationSuccess);
  return authorization;
}

SCPreferencesRef HelperFixture::openPreferences(const AuthorizationRef &authorization) {
  auto preferences = SCPreferencesCreateWithAuthorization("test", {}, authorization);
  EXPECT_TRUE(preferences);
  return preferences;
}

SCNetworkServiceRef HelperFixture::addService(const SCPreferencesRef &preferences, const std::string &name,
                                              const std::string &address, const std::string &tunnelType) {
  const auto tunnel = SCNetworkInterfaceCreateWithInterface(kSCNetworkInterfaceIPv4, tunnelType);
  const auto ppp = SCNetworkInterfaceCreateWithInterface(tunnel, kSCNetworkInterfaceTypePPP);
  auto service = SCNetworkServiceCreate(preferences, ppp);
  EXPECT_TRUE(SCNetworkServiceSetName(service, name));
  EXPECT_TRUE(SCNetworkServiceEstablishDefaultConfiguration(service));
  const auto interface = SCNetworkServiceGetInterface(service);
  auto configuration = SCNetworkInterfaceGetConfiguration(interface);
  configuration.set(kSCPropNetPPPCommRemoteAddress, address);
  EXPECT_TRUE(SCNetworkInterfaceSetConfiguration(interface, configuration));
  EXPECT_TRUE(SCNetworkSetAddService(SCNetworkSetCopyCurrent(preferences), service));
  return service;
}

std::string HelperFixture::commitService(const AuthorizationRef &authorization, const std::string &address) {
  const auto preferences = openPreferences(authorization);
  const auto service = addService(preferences, "test " + address, address);
  EXPECT_TRUE(SCPreferencesCommitChanges(preferences)) << SCError();
  EXPECT_TRUE(SCPreferencesApplyChanges(preferences)) << SCError();
  return SCNetworkServiceGetServiceID(service).value_or("");
}

std::vector<std::string> HelperFixture::helperProcesses() const {
  std::vector<std::string> found;
  for (const auto &entry : std::filesystem::directory_iterator("/proc")) {
    std::error_code error;
    const auto executable = std::filesystem::read_symlink(entry.path() / "exe", error);
    if (!error && executable == folder_.path("vpnctl-helper")) found.push_back(entry.path().filename().string());
  }
  return found;
}

std::vector<std::int64_t> HelperFixture::Recorder::phases() const {
  std::vector<std::int64_t> phases;
  for (const auto &moment : moments) phases.push_back(moment.extendedStatus["PPP"]["Status"].integerValue());
  return phases;
}

void HelperFixture::record(SCNetworkConnectionRef connection, SCNetworkConnectionStatus status, void *info) {
  const std::int32_t error = SCError();
  auto &recorder = *static_cast<Recorder *>(info);
  recorder.moments.push_back(
      {status, SCNetworkConnectionGetStatus(connection), error, SCNetworkConnectionCopyExtendedStatus(connection)});
  if (status == recorder.stopAt && !recorder.stopped) {
    recorder.stopped = true;
    SCNetworkConnectionStop(connection, true);
  }
  if (status == recorder.signalAt) ::kill(recorder.signalTo, SIGTERM);
  if (status == kSCNetworkConnectionDisconnected) CFRunLoopStop(CFRunLoopGetCurrent());
}

SCNetworkConnectionRef HelperFixture::connect(const std::string &serviceID, Recorder &recorder) {
  auto connection =
      SCNetworkConnectionCreateWithServiceID(serviceID, record, {0, &recorder, nullptr, nullptr, nullptr});
  EXPECT_TRUE(connection);
  EXPECT_TRUE(SCNetworkConnectionScheduleWithRunLoop(connection, CFRunLoopGetCurrent(), kCFRunLoopDefaultMode));
  return connection;
}

}  // namespace testing

}  // namespace platform
