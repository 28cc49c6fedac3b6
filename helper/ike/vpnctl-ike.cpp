// vpnctl-ike: speaks IKE with the server, and has no right to anything else. The helper starts it with one end of a
// socket pair as standard input; IKEProtocol.h describes what is said there.

#include <openssl/crypto.h>
#include <sys/resource.h>
#include <unistd.h>

#include <exception>

#include "foundation/ProcessMemory.h"
#include "helper/ike/Confinement.h"
#include "helper/ike/IKEWorker.h"
#include "helper/isakmp/Cipher.h"
#include "helper/isakmp/Hash.h"

int main() {
  // What is locked in memory stays so; what comes later may be locked only where nothing limits it.
  constexpr rlimit kUnlimited{RLIM_INFINITY, RLIM_INFINITY};
  if (::setrlimit(RLIMIT_MEMLOCK, &kUnlimited) == 0) vpnctl::protectProcessMemory();
  // Its configuration is a file, and could name libraries to load.
  if (OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG, nullptr) != 1) return 1;
  try {
    // While nobody waits for it yet.
    helper::isakmp::lookUpHashes();
    helper::isakmp::lookUpCiphers();
    auto worker = helper::IKEWorker::awaitStart(vpnctl::FileDescriptor(STDIN_FILENO));
    if (!worker) return 1;
    if (!helper::confine()) return 1;
    (*worker)->run();
  } catch (const std::exception &) {
    return 1;
  }
  return 0;
}
