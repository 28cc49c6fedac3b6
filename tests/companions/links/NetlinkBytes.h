// Netlink messages as bytes, as the kernel would send them.

#pragma once

#include <linux/netlink.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

namespace support {

using Bytes = std::vector<std::uint8_t>;

template <class Value>
Bytes bytesOf(const Value &value) {
  const auto *begin = reinterpret_cast<const std::uint8_t *>(&value);
  return {begin, begin + sizeof value};
}

inline Bytes padded(Bytes bytes) {
  bytes.resize((bytes.size() + 3) & ~std::size_t{3});
  return bytes;
}

inline Bytes attribute(int type, const Bytes &value) {
  nlattr header{};
  header.nla_len = static_cast<std::uint16_t>(sizeof header + value.size());
  header.nla_type = static_cast<std::uint16_t>(type);
  Bytes bytes = bytesOf(header);
  bytes.insert(bytes.end(), value.begin(), value.end());
  return padded(std::move(bytes));
}

// A fixed part and attributes behind it.
template <class Header>
Bytes bodyOf(const Header &header, const std::vector<Bytes> &attributes) {
  Bytes body = padded(bytesOf(header));
  for (const Bytes &each : attributes) body.insert(body.end(), each.begin(), each.end());
  return body;
}

}  // namespace support
