#include "companions/doctor/NetworkState.h"

#include <arpa/inet.h>
#include <linux/fib_rules.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/xfrm.h>
#include <net/if.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "foundation/FileDescriptor.h"

namespace companions {

using vpnctl::errnoError;
using vpnctl::FileDescriptor;
using vpnctl::Result;
using vpnctl::Status;

namespace {

constexpr timeval kPatience{1, 0};

// The fixed part of a message; the attributes behind it.
template <class Header>
struct Message {
  Header header{};
  const char *attributes = nullptr;
  std::size_t size = 0;

  // Of attribute TYPE, the last one; none where it is not there, or too short.
  template <class Value>
  std::optional<Value> find(unsigned short type) const {
    std::optional<Value> found;
    for (std::size_t at = 0; at + sizeof(rtattr) <= size;) {
      rtattr attribute{};
      std::memcpy(&attribute, attributes + at, sizeof attribute);
      if (attribute.rta_len < sizeof attribute || attribute.rta_len > size - at) break;
      if (attribute.rta_type == type && attribute.rta_len >= sizeof attribute + sizeof(Value)) {
        found.emplace();
        std::memcpy(&*found, attributes + at + sizeof attribute, sizeof(Value));
      }
      at += (static_cast<std::size_t>(attribute.rta_len) + 3) & ~std::size_t{3};
    }
    return found;
  }
};

Result<FileDescriptor> ask(int protocol, std::uint16_t type, std::uint8_t family) {
  FileDescriptor socket(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, protocol));
  if (!socket) return errnoError(errno, "speak with the kernel");
  ::setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof kPatience);
  struct {
    nlmsghdr header{};
    rtgenmsg body{};
  } request;
  request.header.nlmsg_len = NLMSG_LENGTH(sizeof request.body);
  request.header.nlmsg_type = type;
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request.body.rtgen_family = family;
  if (::send(socket.get(), &request, request.header.nlmsg_len, 0) < 0) return errnoError(errno, "ask the kernel");
  return socket;
}

// TAKE gets each message's fixed part and attributes. TYPE and FAMILY say of what.
template <class Header>
Status dump(int protocol, std::uint16_t type, std::uint8_t family,
            const std::function<void(const Message<Header> &)> &take) {
  const auto socket = ask(protocol, type, family);
  if (!socket) return socket.error();
  alignas(nlmsghdr) std::array<char, 32768> buffer{};
  while (true) {
    const ssize_t count = ::recv(socket->get(), buffer.data(), buffer.size(), 0);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return errnoError(count < 0 ? errno : EPIPE, "hear the kernel's answer");
    for (std::size_t at = 0; at + sizeof(nlmsghdr) <= static_cast<std::size_t>(count);) {
      nlmsghdr header{};
      std::memcpy(&header, buffer.data() + at, sizeof header);
      if (header.nlmsg_len < sizeof header || header.nlmsg_len > static_cast<std::size_t>(count) - at) break;
      const char *body = buffer.data() + at + NLMSG_HDRLEN;
      const std::size_t size = header.nlmsg_len - NLMSG_HDRLEN;
      if (header.nlmsg_type == NLMSG_DONE) return {};
      if (header.nlmsg_type == NLMSG_ERROR) {
        int code = 0;
        if (size >= sizeof code) std::memcpy(&code, body, sizeof code);
        return errnoError(-code, "ask the kernel");
      }
      constexpr std::size_t kFixed = (sizeof(Header) + 3) & ~std::size_t{3};
      if (size >= kFixed) {
        Message<Header> message;
        std::memcpy(&message.header, body, sizeof(Header));
        message.attributes = body + kFixed;
        message.size = size - kFixed;
        take(message);
      }
      at += NLMSG_ALIGN(header.nlmsg_len);
    }
  }
}

Status readRules(std::vector<NetworkState::Rule> &rules) {
  return dump<fib_rule_hdr>(
      NETLINK_ROUTE, RTM_GETRULE, AF_INET,
      [&](const Message<fib_rule_hdr> &message) {
        NetworkState::Rule rule;
        rule.preference = message.find<std::uint32_t>(FRA_PRIORITY).value_or(0);
        rule.table = message.find<std::uint32_t>(FRA_TABLE).value_or(message.header.table);
        rule.maker = message.find<std::uint8_t>(FRA_PROTOCOL).value_or(0);
        rule.hasMark = message.find<std::uint32_t>(FRA_FWMARK).has_value();
        rule.isInverted = (message.header.flags & FIB_RULE_INVERT) != 0;
        rules.push_back(rule);
      });
}

Status readHalves(std::vector<NetworkState::Half> &halves) {
  return dump<rtmsg>(
      NETLINK_ROUTE, RTM_GETROUTE, AF_INET,
      [&](const Message<rtmsg> &message) {
        const std::uint32_t table = message.find<std::uint32_t>(RTA_TABLE).value_or(message.header.rtm_table);
        if (table != RT_TABLE_MAIN || message.header.rtm_dst_len != 1) return;
        const in_addr destination = message.find<in_addr>(RTA_DST).value_or(in_addr{});
        std::array<char, INET_ADDRSTRLEN> text{};
        ::inet_ntop(AF_INET, &destination, text.data(), text.size());
        std::array<char, IF_NAMESIZE> name{};
        const auto index = message.find<std::uint32_t>(RTA_OIF).value_or(0);
        halves.push_back(
            {std::string(text.data()) + "/1", ::if_indextoname(index, name.data()) ? name.data() : "nowhere"});
      });
}

// Those of single sockets, vpnctl's among them, have other directions.
Status countPolicies(std::size_t &count) {
  return dump<xfrm_userpolicy_info>(
      NETLINK_XFRM, XFRM_MSG_GETPOLICY, AF_UNSPEC,
      [&](const Message<xfrm_userpolicy_info> &message) {
        if (message.header.dir == XFRM_POLICY_OUT && (message.header.index & 7) < 3) ++count;
      });
}

}  // namespace

Result<NetworkState> NetworkState::read() {
  NetworkState state;
  if (const Status status = readRules(state.rules); !status) return status.error();
  if (const Status status = readHalves(state.halves); !status) return status.error();
  std::size_t policies = 0;
  const Status counted = countPolicies(policies);
  // A kernel without IPSec has none; that it has none is another check's.
  if (counted || counted.error().code == EPROTONOSUPPORT) state.policies = policies;
  return state;
}

}  // namespace companions
