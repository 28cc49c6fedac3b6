// Why a tunnel, or what protects it, did not come up.

#pragma once

#include <string>

namespace helper {

// What DeviceLastCause says.
enum class DeviceCause { noServer = 1, noAnswer = 2, protocolError = 5, networkChanged = 6, noSharedSecret = 7 };

struct TunnelFailure {
  DeviceCause cause = DeviceCause::protocolError;
  std::string sentence;  // plain ASCII: which stage, why, and the remedy; for the PPP log
};

}  // namespace helper
