// Plays pppd with our plugin in it, for tests: fake_pppd MODE SOCKET. Modes: "good" goes up and waits for its end,
// "stubborn" does so and ignores SIGTERM, "early" ends with status 2 before it says anything, "hasty" goes up, tells
// that the peer is dead (15) and ends as after a hang-up (16).

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "helper/ppp/PluginProtocol.h"

namespace {

int helperSocket = -1;

vpnctl_plugin_header header(std::uint16_t type) { return {VPNCTL_PLUGIN_VERSION, type}; }

template <class Record>
void say(const Record &record) {
  if (::send(helperSocket, &record, sizeof record, MSG_NOSIGNAL) != static_cast<ssize_t>(sizeof record)) _exit(90);
}

void phase(int number) { say(vpnctl_plugin_phase{header(VPNCTL_PLUGIN_PHASE), number, 7}); }

int receiveChannel() {
  vpnctl_plugin_header answer{};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
  iovec part{&answer, sizeof answer};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  if (::recvmsg(helperSocket, &message, 0) != static_cast<ssize_t>(sizeof answer)) _exit(8);
  int fd = -1;
  std::memcpy(&fd, CMSG_DATA(CMSG_FIRSTHDR(&message)), sizeof fd);
  return fd;
}

void write(const char *text) {
  if (::write(STDERR_FILENO, text, std::strlen(text)) < 0) _exit(95);
}

[[noreturn]] void end(int status, int told) {
  write("ending\nwithout an end");
  phase(9);
  phase(10);
  say(vpnctl_plugin_exit{header(VPNCTL_PLUGIN_EXIT), told, 9, 0, 0});
  _exit(status);
}
[[noreturn]] void end(int status) { end(status, status); }

}  // namespace

int main(int argc, char **argv) {
  if (argc != 3) return 91;
  const std::string mode = argv[1];
  if (mode == "early") return 2;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, argv[2], sizeof address.sun_path - 1);
  helperSocket = ::socket(AF_UNIX, SOCK_SEQPACKET, 0);
  if (::connect(helperSocket, reinterpret_cast<sockaddr *>(&address), sizeof address) < 0) return 92;

  say(header(VPNCTL_PLUGIN_NEED_CHANNEL));
  const int channel = receiveChannel();
  // From here on SIGTERM asks for an orderly end; before, it ends the process as it is.
  sigset_t term;
  sigemptyset(&term);
  sigaddset(&term, SIGTERM);
  sigprocmask(SIG_BLOCK, &term, nullptr);
  const int signals = ::signalfd(-1, &term, 0);
  phase(4);
  phase(5);
  say(header(VPNCTL_PLUGIN_NEED_PASSWORD));
  vpnctl_plugin_password password{};
  if (::recv(helperSocket, &password, sizeof password, 0) != static_cast<ssize_t>(sizeof password)) return 93;
  if (password.length < 0) end(19);
  // Where the test can see it.
  if (::write(channel, password.bytes, static_cast<std::size_t>(password.length)) != password.length) return 94;
  phase(7);
  phase(8);
  vpnctl_plugin_ip_up up{};
  up.header = header(VPNCTL_PLUGIN_IP_UP);
  std::strcpy(up.interface, "ppp0");
  up.local_address = 1;
  up.peer_address = 2;
  write("up\n");
  say(up);
  if (mode == "hasty") end(16, 15);
  while (true) {
    pollfd waits[2] = {{helperSocket, POLLIN, 0}, {mode == "stubborn" ? -1 : signals, POLLIN, 0}};
    ::poll(waits, 2, -1);
    if (waits[1].revents != 0) end(5);
    if (waits[0].revents != 0 && mode != "stubborn") end(16);
    if (waits[0].revents != 0) ::pause();
  }
}
