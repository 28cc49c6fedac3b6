// Listens on every link of a host and tells of L2TP that is not inside ESP: wiretap
//
// Prints a line "clear FROM:PORT -> TO:PORT" for each UDP packet from or to port 1701 that can be read on the wire,
// whatever it holds, and for each later fragment of a UDP packet, since its ports cannot be seen. At SIGTERM it prints
// "heard N of ESP" and ends: without that line, and N above zero, its silence proves nothing.
#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <netinet/ip.h>
#include <netinet/udp.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <iostream>
#include <stdexcept>
#include <string>

constexpr uint16_t kL2TP = 1701, kNATTraversal = 4500;

static std::string text(uint32_t address) {
  std::array<char, INET_ADDRSTRLEN> buffer{};
  return inet_ntop(AF_INET, &address, buffer.data(), buffer.size());
}

class Wiretap {
 public:
  void hear(const unsigned char *bytes, size_t size) {
    iphdr ip{};
    if (size < sizeof ip) return;
    memcpy(&ip, bytes, sizeof ip);
    if (ip.version != 4) return;
    if (ip.protocol == IPPROTO_ESP) ++m_protected;
    if (ip.protocol != IPPROTO_UDP) return;
    if (ntohs(ip.frag_off) & IP_OFFMASK) return tell(ip, 0, 0);
    size_t head = ip.ihl * 4U;
    udphdr udp{};
    if (size < head + sizeof udp) return;
    memcpy(&udp, bytes + head, sizeof udp);
    uint16_t from = ntohs(udp.source), to = ntohs(udp.dest);
    if (from == kL2TP || to == kL2TP) tell(ip, from, to);
    // Behind a router that translates addresses, ESP travels inside UDP; IKE does so, too, but begins with four zero
    // bytes.
    uint32_t mark = 0;
    if ((from == kNATTraversal || to == kNATTraversal) && size >= head + sizeof udp + sizeof mark) {
      memcpy(&mark, bytes + head + sizeof udp, sizeof mark);
      if (mark != 0) ++m_protected;
    }
  }
  [[nodiscard]] unsigned protectedPackets() const { return m_protected; }

 private:
  static void tell(const iphdr &ip, uint16_t from, uint16_t to) {
    std::cout << "clear " << text(ip.saddr) << ":" << from << " -> " << text(ip.daddr) << ":" << to << std::endl;
  }
  unsigned m_protected = 0;
};

static int check(int result, const char *what) {
  if (result < 0) throw std::runtime_error(std::string(what) + ": " + strerror(errno));
  return result;
}

int main() try {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  check(sigprocmask(SIG_BLOCK, &signals, nullptr), "block SIGTERM");
  int end = check(signalfd(-1, &signals, SFD_CLOEXEC), "signalfd");
  int wire = check(socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC, htons(ETH_P_IP)), "open a packet socket");
  int room = 8 << 20;  // a packet that finds no room is one that nobody heard
  check(setsockopt(wire, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room), "set the socket's room");
  std::cout << "listening" << std::endl;
  Wiretap tap;
  std::array<unsigned char, 2048> packet{};
  for (;;) {
    std::array<pollfd, 2> waits{{{wire, POLLIN, 0}, {end, POLLIN, 0}}};
    check(poll(waits.data(), waits.size(), -1), "wait");
    if (waits[0].revents) {
      ssize_t got = check(static_cast<int>(recv(wire, packet.data(), packet.size(), MSG_TRUNC)), "hear");
      tap.hear(packet.data(), std::min(static_cast<size_t>(got), packet.size()));
    } else if (waits[1].revents) {
      break;
    }
  }
  tpacket_stats missed{};
  socklen_t length = sizeof missed;
  check(getsockopt(wire, SOL_PACKET, PACKET_STATISTICS, &missed, &length), "ask what was missed");
  if (missed.tp_drops != 0) throw std::runtime_error("missed packets: " + std::to_string(missed.tp_drops));
  std::cout << "heard " << tap.protectedPackets() << " of ESP" << std::endl;
} catch (const std::exception &error) {
  std::cerr << "wiretap: " << error.what() << "\n";
  return 1;
}
