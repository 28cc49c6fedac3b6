#include "platform/SecretFile.h"

#include <syslog.h>

namespace platform {

void tellOfReadableSecrets(const std::string &path) {
  ::syslog(LOG_WARNING, "Everybody on this machine can read %s, and it holds secrets: chmod 600 would keep them.",
           path.c_str());
}

}  // namespace platform
