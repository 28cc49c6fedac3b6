// What an IKE daemon holds, asked over its control socket, for tools that compare: connections, associations, shared
// secrets.
#pragma once

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>

namespace lab {

class Vici {
 public:
  // Nobody listening there is no error: connected() says so.
  explicit Vici(const std::string &path) : m_fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    timeval patience{5, 0};  // a daemon that is busy or dying must not hold up the comparison for ever
    setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    m_connected = connect(m_fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
  }
  ~Vici() { close(m_fd); }
  Vici(const Vici &) = delete;
  Vici &operator=(const Vici &) = delete;

  [[nodiscard]] bool connected() const { return m_connected; }

  // Hands over the message of each event that the command streams; for one that streams nothing, its answer.
  void ask(const std::string &command, const std::string &event, const std::function<void(const std::string &)> &take) {
    if (!event.empty()) {
      send(kRegister, event);
      if (receive()[0] != kConfirm) throw std::runtime_error("the IKE daemon knows no event " + event);
    }
    send(kRequest, command);
    for (;;) {
      std::string packet = receive();
      if (packet[0] == kEvent)
        take(packet.substr(2 + static_cast<unsigned char>(packet[1])));
      else if (packet[0] != kResponse)
        throw std::runtime_error("the IKE daemon refuses " + command);
      else
        return event.empty() ? take(packet.substr(1)) : void();
    }
  }

  // The names of a message's outermost sections, and the items of its lists.
  static void names(const std::string &message, const std::function<void(const std::string &)> &take) {
    int depth = 0;
    for (size_t at = 0; at < message.size();) {
      auto kind = message[at++];
      if (kind == kSectionStart || kind == kKeyValue || kind == kListStart) {
        std::string name = counted(message, at, 1);
        if (kind == kSectionStart && depth++ == 0) take(name);
        if (kind == kKeyValue) counted(message, at, 2);
      } else if (kind == kListItem) {
        std::string item = counted(message, at, 2);
        if (depth == 0) take(item);
      } else if (kind == kSectionEnd) {
        --depth;
      }
    }
  }

 private:
  enum Packet : char { kRequest = 0, kResponse = 1, kRegister = 3, kConfirm = 5, kEvent = 7 };
  enum Element : char { kSectionStart = 1, kSectionEnd = 2, kKeyValue = 3, kListStart = 4, kListItem = 5 };

  static std::string counted(const std::string &message, size_t &at, size_t width) {
    size_t size = 0;
    for (; width > 0; --width) size = size << 8 | static_cast<unsigned char>(message.at(at++));
    at += size;
    return message.substr(at - size, size);
  }

  void send(char kind, const std::string &name) {
    std::string packet{kind, static_cast<char>(name.size())};
    packet += name;
    uint32_t size = htonl(static_cast<uint32_t>(packet.size()));
    packet.insert(0, reinterpret_cast<const char *>(&size), sizeof size);
    if (::send(m_fd, packet.data(), packet.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(packet.size()))
      throw std::runtime_error("the IKE daemon does not listen");
  }

  std::string receive() {
    uint32_t size = 0;
    read(&size, sizeof size);
    std::string packet(ntohl(size), '\0');
    read(packet.data(), packet.size());
    return packet;
  }

  void read(void *bytes, size_t size) {
    if (size == 0 || recv(m_fd, bytes, size, MSG_WAITALL) != static_cast<ssize_t>(size))
      throw std::runtime_error("the IKE daemon does not answer");
  }

  int m_fd;
  bool m_connected = false;
};

}  // namespace lab
