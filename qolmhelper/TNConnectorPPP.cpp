#include "qolmhelper/TNConnectorPPP.h"

#include <cstdio>
#include <utility>

#include "foundation/Assertion.h"
#include "qolmhelper/PPPStatus.h"

namespace TN {
namespace {

constexpr const char *kPPPLog = "/var/log/ppp.log";

// A chunk of the log that is not UTF-8 arrives as no text. Some C libraries print a null string so, others crash over
// it: no line of the log is worth the connection.
void writeLogLine(const std::optional<std::string> &line) { std::fputs(line ? line->c_str() : "(null)", stderr); }

}  // namespace

TNConnectorPPP::TNConnectorPPP(Text server, Text username, SecretText password, SecretText sharedSecret) {
  setServer(std::move(server));
  setUsername(std::move(username));
  setPassword(std::move(password));
  setSharedSecret(std::move(sharedSecret));
}

void TNConnectorPPP::setServer(Text server) { server_ = std::move(server); }
void TNConnectorPPP::setUsername(Text username) { username_ = std::move(username); }
void TNConnectorPPP::setPassword(SecretText password) { password_ = std::move(password); }
void TNConnectorPPP::setSharedSecret(SecretText sharedSecret) { sharedSecret_ = std::move(sharedSecret); }
void TNConnectorPPP::setLogTailer(std::shared_ptr<TNFileTailer> logTailer) { logTailer_ = std::move(logTailer); }

platform::SCNetworkConnectionRef TNConnectorPPP::connection() { return connection_; }

void TNConnectorPPP::connect() {
  setLogTailer(TNFileTailer::initWithPath(kPPPLog));
  if (logTailer_) logTailer_->tail(writeLogLine);

  // Without a connection the tailer goes on until the process ends: what the log says next may be the reason.
  if (!connection()) {
    const std::int32_t error = platform::SCError();
    std::fprintf(stderr, "Error: %s, code: %d\n", platform::SCErrorString(error).c_str(), error);
    return;
  }

  attempt();

  if (logTailer_) logTailer_->stop();
  std::fputs("Exit.\n", stderr);
}

// Schedules and starts the connection and waits for its end. A call that fails while SCError() says nothing is not
// believed: the attempt goes on, and the status changes tell.
void TNConnectorPPP::attempt() {
  if (!platform::SCNetworkConnectionScheduleWithRunLoop(connection(), platform::CFRunLoopGetCurrent(),
                                                        platform::kCFRunLoopDefaultMode) &&
      platform::SCError() != platform::kSCStatusOK)
    return;
  switch (platform::SCNetworkConnectionGetStatus(connection())) {
    case platform::kSCNetworkConnectionInvalid:
      std::fputs("Service is invalid.  Weird.\n", stderr);
      break;
    case platform::kSCNetworkConnectionDisconnected:
      if (!platform::SCNetworkConnectionStart(connection(), vpnctl::Value(), false) &&
          platform::SCError() != platform::kSCStatusOK)
        return;
      platform::CFRunLoopRun();
      break;
    case platform::kSCNetworkConnectionConnecting:
      std::fputs("Service is already connecting.\n", stderr);
      break;
    case platform::kSCNetworkConnectionConnected:
      std::fputs("Service is already connected.\n", stderr);
      break;
    case platform::kSCNetworkConnectionDisconnecting:
      std::fputs("Service is disconnecting.\n", stderr);
      break;
    default:
      std::fputs("Unexpected status.\n", stderr);
      break;
  }
}

void TNConnectorPPP::disconnect() { platform::SCNetworkConnectionStop(connection(), true); }

void TNConnectorPPP::connectionStatusChanged(std::int32_t status, std::int32_t minorStatus) {
  connectionStatusChanged(status, minorStatus, platform::kSCStatusOK);
}

void TNConnectorPPP::connectionStatusChanged(std::int32_t status, std::int32_t minorStatus, std::int32_t error) {
  if (status == platform::kSCNetworkConnectionDisconnected) {
    if (error != platform::kSCStatusOK) std::fprintf(stderr, "Error: %s\n", platform::SCErrorString(error).c_str());
    const vpnctl::Value extendedStatus = platform::SCNetworkConnectionCopyExtendedStatus(connection());
    const vpnctl::Value &lastCause = extendedStatus["PPP"]["LastCause"];
    if (!lastCause.isNull()) {  // also 0, which says that the end had no cause
      const std::int32_t cause = lastCause.intValue();
      std::fprintf(stderr, "Error: %s, cause: %d\n", platform::SCErrorString(cause).c_str(), cause);
    }
    platform::CFRunLoopStop(platform::CFRunLoopGetCurrent());
  }
  std::fprintf(stderr, "%s\n", NSStringFromPPPStatus(minorStatus));
}

void PPPNetworkConnectionCallBack(platform::SCNetworkConnectionRef connection, platform::SCNetworkConnectionStatus,
                                  void *info) {
  const auto require = [](bool holds, const char *expression, int line) {
    if (!holds) vpnctl::assertionFailed(expression, "PPPNetworkConnectionCallBack", "TNConnectorPPP", line);
  };
  require(connection != nullptr, "connection != NULL", 26);
  require(info != nullptr, "info != NULL", 27);

  const std::shared_ptr<TNConnectorPPP> connector = static_cast<TNConnectorPPP *>(info)->shared_from_this();
  // The error first: the calls that follow may set another.
  const std::int32_t error = platform::SCError();
  const platform::SCNetworkConnectionStatus status = platform::SCNetworkConnectionGetStatus(connection);
  const std::int32_t minorStatus = GetMinorStatus(connection);
  connector->connectionStatusChanged(status, minorStatus, error);
}

}  // namespace TN
