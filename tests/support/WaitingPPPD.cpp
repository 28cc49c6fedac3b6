// Plays pppd with our plugin in it, for tests: asks for its channel at the socket that its words name, and ends as
// after a hang-up when that closes.

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string_view>

#include "helper/ppp/PluginProtocol.h"

int main(int argc, char **argv) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  for (int i = 1; i + 1 < argc; ++i)
    if (std::string_view(argv[i]) == "vpnctl-socket")
      std::strncpy(address.sun_path, argv[i + 1], sizeof address.sun_path - 1);
  const int helper = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (::connect(helper, reinterpret_cast<sockaddr *>(&address), sizeof address) < 0) return 1;
  const vpnctl_plugin_header channel = {VPNCTL_PLUGIN_VERSION, VPNCTL_PLUGIN_NEED_CHANNEL};
  if (::send(helper, &channel, sizeof channel, MSG_NOSIGNAL) != static_cast<ssize_t>(sizeof channel)) return 1;
  pollfd closed = {helper, POLLIN, 0};
  ::poll(&closed, 1, -1);
  return 16;
}
