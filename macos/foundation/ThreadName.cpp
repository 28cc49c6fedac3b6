#include "foundation/ThreadName.h"

#include <pthread.h>

namespace vpnctl {

// A longer one would be refused.
void setThreadName(const std::string &name) { pthread_setname_np(name.substr(0, 63).c_str()); }

}  // namespace vpnctl
