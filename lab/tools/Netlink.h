// A netlink dump as lines of text, for tools that compare what a network namespace holds.
#pragma once

#include <arpa/inet.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace lab {

// A socket belongs to the network namespace in which it was made, whatever its process does afterwards.
class Netlink {
 public:
  explicit Netlink(int protocol, uint32_t groups = 0) {
    m_fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, protocol);
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = groups;
    if (m_fd < 0 || bind(m_fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
      throw std::runtime_error("cannot open a netlink socket: " + std::string(strerror(errno)));
  }
  ~Netlink() { close(m_fd); }
  Netlink(const Netlink &) = delete;
  Netlink &operator=(const Netlink &) = delete;

  [[nodiscard]] int fd() const { return m_fd; }

  // Asks for all objects of a kind and hands over every answer. `body` is the fixed part that this request begins with.
  void dump(uint16_t type, const void *body, size_t size, const std::function<void(const nlmsghdr &)> &take) {
    std::vector<char> request(NLMSG_SPACE(size));
    auto *head = reinterpret_cast<nlmsghdr *>(request.data());
    head->nlmsg_len = NLMSG_LENGTH(size);
    head->nlmsg_type = type;
    head->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    memcpy(NLMSG_DATA(head), body, size);
    if (send(m_fd, request.data(), head->nlmsg_len, 0) < 0)
      throw std::runtime_error("cannot ask netlink: " + std::string(strerror(errno)));
    for (bool more = true; more;) more = receive(take);
  }

  // Takes one datagram of messages; false when a dump has come to its end.
  bool receive(const std::function<void(const nlmsghdr &)> &take) {
    m_buffer.resize(1 << 16);
    ssize_t got = recv(m_fd, m_buffer.data(), m_buffer.size(), 0);
    if (got < 0) throw std::runtime_error("cannot read netlink: " + std::string(strerror(errno)));
    auto left = static_cast<unsigned>(got);
    for (auto *head = reinterpret_cast<nlmsghdr *>(m_buffer.data()); NLMSG_OK(head, left);
         head = NLMSG_NEXT(head, left)) {
      if (head->nlmsg_type == NLMSG_DONE) return false;
      if (head->nlmsg_type == NLMSG_ERROR) throw std::runtime_error("netlink refuses a dump");
      take(*head);
    }
    return true;
  }

 private:
  int m_fd = -1;
  std::vector<char> m_buffer;
};

inline std::string addressText(int family, const void *bytes) {
  char text[INET6_ADDRSTRLEN] = "?";
  inet_ntop(family, bytes, text, sizeof text);
  return text;
}

inline std::string hexText(const void *bytes, size_t size) {
  static const char digits[] = "0123456789abcdef";
  std::string text;
  for (size_t i = 0; i < size; ++i) {
    auto byte = static_cast<const unsigned char *>(bytes)[i];
    text += digits[byte >> 4];
    text += digits[byte & 15];
  }
  return text;
}

}  // namespace lab
