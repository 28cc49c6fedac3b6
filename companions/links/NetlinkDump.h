// One question to the kernel whose answer is a list, over netlink, by libnl. The answer about IPSec has keys in it:
// only a program that wipes what it frees (WipedHeap.cpp) may ask for that one.
//
// Thread rule: any. Blocks until the kernel has answered, which it does at once; for two seconds at most for each part.

#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <optional>
#include <span>
#include <vector>

#include "foundation/Result.h"

namespace companions {

// One message of an answer; a view.
struct NetlinkMessage {
  std::uint16_t type = 0;
  std::span<const std::uint8_t> body{};

  // Its fixed part; none when it is shorter.
  template <class Header>
  std::optional<Header> header() const {
    if (body.size() < sizeof(Header)) return std::nullopt;
    Header header;
    std::memcpy(&header, body.data(), sizeof header);
    return header;
  }
  // The bytes of the first attribute WANTED behind a fixed part of HEADERSIZE; empty: there is none.
  std::span<const std::uint8_t> attribute(std::size_t headerSize, int wanted) const;
  // It as a value; none also when it has another size.
  template <class Value>
  std::optional<Value> valueOf(std::size_t headerSize, int wanted) const {
    const auto bytes = attribute(headerSize, wanted);
    if (bytes.size() != sizeof(Value)) return std::nullopt;
    Value value;
    std::memcpy(&value, bytes.data(), sizeof value);
    return value;
  }
};

// The errno that LIBNLCODE was made of; EIO where that cannot be told.
int errnoOf(int libnlCode);

class NetlinkDump {
 public:
  // FAMILY is NETLINK_ROUTE or NETLINK_XFRM, TYPE the question's; HEADER is its fixed part, if it has one.
  NetlinkDump(int family, std::uint16_t type) : family_(family), type_(type) {}
  template <class Header>
  NetlinkDump(int family, std::uint16_t type, const Header &header) : NetlinkDump(family, type) {
    const auto *bytes = reinterpret_cast<const std::uint8_t *>(&header);
    header_.assign(bytes, bytes + sizeof header);
  }

  // What PARSE makes of the messages; those of which it makes nothing are left out. EINTR when the list has changed
  // again and again while it was read; EPERM when only root may ask.
  template <class Item>
  vpnctl::Result<std::vector<Item>> take(std::optional<Item> (*parse)(const NetlinkMessage &message),
                                         const char *what) const {
    std::vector<Item> items;
    const vpnctl::Status status = run([&items] { items.clear(); },
                                      [&items, parse](const NetlinkMessage &message) {
                                        if (auto item = parse(message)) items.push_back(std::move(*item));
                                      },
                                      what);
    if (!status) return status.error();
    return items;
  }

 private:
  vpnctl::Status run(const std::function<void()> &begin, const std::function<void(const NetlinkMessage &)> &take,
                     const char *what) const;
  // 0, or an errno.
  int ask(const std::function<void(const NetlinkMessage &)> &take) const;

  int family_;
  std::uint16_t type_;
  std::vector<std::uint8_t> header_;
};

}  // namespace companions
