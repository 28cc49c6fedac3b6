// Why a tunnel, or what protects it, did not come up, or is gone again.

#pragma once

#include <string>

namespace helper {

// What DeviceLastCause says.
enum class DeviceCause { noServer = 1, noAnswer = 2, protocolError = 5, networkChanged = 6, noSharedSecret = 7 };

struct TunnelFailure {
  DeviceCause cause = DeviceCause::protocolError;
  std::string sentence;  // plain ASCII: which stage, why, and the remedy; for the PPP log
};

// Why a tunnel that was up is gone.
struct TunnelLoss {
  bool endedByServer = false;  // the server took its leave; otherwise the line was lost, or what protects it
  std::string sentence;        // as above
};

}  // namespace helper
