#include "companions/links/KernelAnswers.h"

#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <linux/xfrm.h>

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "helper/network/Routing.h"

namespace companions {

namespace {

std::string textIn(std::span<const std::uint8_t> bytes) {
  const auto end = std::ranges::find(bytes, 0);
  return {bytes.begin(), end};
}

// How xfrm_algo, xfrm_algo_auth and xfrm_algo_aead begin. The key stands behind, and is not looked at.
struct Algorithm {
  std::array<char, 64> name;
  std::uint32_t bits;
};

std::optional<Algorithm> algorithmIn(const NetlinkMessage &message, int type) {
  const auto bytes = message.attribute(sizeof(xfrm_usersa_info), type);
  Algorithm algorithm;
  if (bytes.size() < sizeof algorithm) return std::nullopt;
  std::memcpy(&algorithm, bytes.data(), sizeof algorithm);
  return algorithm;
}

// As engine.conf writes it, or else as the kernel does.
std::string nameOf(const Algorithm &algorithm) {
  static constexpr std::array<std::pair<std::string_view, std::string_view>, 6> kNames{{{"cbc(des3_ede)", "3des"},
                                                                                        {"hmac(md5)", "md5"},
                                                                                        {"hmac(sha1)", "sha1"},
                                                                                        {"hmac(sha256)", "sha256"},
                                                                                        {"hmac(sha384)", "sha384"},
                                                                                        {"hmac(sha512)", "sha512"}}};
  const std::string_view whole(algorithm.name.data(), algorithm.name.size());
  const std::string_view name = whole.substr(0, whole.find('\0'));
  if (name == "cbc(aes)") return "aes" + std::to_string(algorithm.bits);
  for (const auto &[kernels, settings] : kNames)
    if (name == kernels) return std::string(settings);
  return std::string(name);
}

std::string algorithmsIn(const NetlinkMessage &message) {
  if (const auto both = algorithmIn(message, XFRMA_ALG_AEAD)) return nameOf(*both);
  const auto cipher = algorithmIn(message, XFRMA_ALG_CRYPT);
  const auto integrity = algorithmIn(message, XFRMA_ALG_AUTH_TRUNC);
  if (!cipher || !integrity) return {};
  return nameOf(*cipher) + "-" + nameOf(*integrity);
}

}  // namespace

std::optional<Interface> interfaceIn(const NetlinkMessage &message) {
  const auto header = message.header<ifinfomsg>();
  if (message.type != RTM_NEWLINK || !header) return std::nullopt;
  Interface interface;
  interface.index = header->ifi_index;
  interface.name = textIn(message.attribute(sizeof *header, IFLA_IFNAME));
  interface.mtu = message.valueOf<std::uint32_t>(sizeof *header, IFLA_MTU).value_or(0);
  // Newer kernels have more behind what we know.
  const auto statistics = message.attribute(sizeof *header, IFLA_STATS64);
  rtnl_link_stats64 counts{};
  std::memcpy(&counts, statistics.data(), std::min(statistics.size(), sizeof counts));
  interface.traffic = {counts.rx_bytes, counts.tx_bytes, counts.rx_packets, counts.tx_packets};
  return interface;
}

std::optional<InterfaceAddress> addressIn(const NetlinkMessage &message) {
  const auto header = message.header<ifaddrmsg>();
  if (message.type != RTM_NEWADDR || !header || header->ifa_family != AF_INET) return std::nullopt;
  const auto local = message.valueOf<in_addr>(sizeof *header, IFA_LOCAL);
  const auto peer = message.valueOf<in_addr>(sizeof *header, IFA_ADDRESS);
  if (!local || !peer) return std::nullopt;
  return InterfaceAddress{static_cast<int>(header->ifa_index), *local, *peer};
}

std::optional<LedNetwork> ledNetworkIn(const NetlinkMessage &message) {
  const auto header = message.header<rtmsg>();
  if (message.type != RTM_NEWROUTE || !header || header->rtm_family != AF_INET || header->rtm_type != RTN_UNICAST ||
      header->rtm_protocol != helper::Routing::kMaker || header->rtm_dst_len > 32)
    return std::nullopt;
  const auto table = message.valueOf<std::uint32_t>(sizeof *header, RTA_TABLE);
  const auto interface = message.valueOf<int>(sizeof *header, RTA_OIF);
  if (!table || !interface) return std::nullopt;
  const in_addr anywhere{};
  return LedNetwork{
      *table, *interface, {message.valueOf<in_addr>(sizeof *header, RTA_DST).value_or(anywhere), header->rtm_dst_len}};
}

std::optional<ESPAssociation> associationIn(const NetlinkMessage &message) {
  const auto info = message.header<xfrm_usersa_info>();
  if (message.type != XFRM_MSG_NEWSA || !info || info->family != AF_INET || info->id.proto != IPPROTO_ESP)
    return std::nullopt;
  ESPAssociation association;
  association.algorithms = algorithmsIn(message);
  if (association.algorithms.empty()) return std::nullopt;
  association.reqid = info->reqid;
  association.source.s_addr = info->saddr.a4;
  association.destination.s_addr = info->id.daddr.a4;
  association.insideUDP = !message.attribute(sizeof *info, XFRMA_ENCAP).empty();
  association.made = std::chrono::seconds(info->curlft.add_time);
  association.lifetime = std::chrono::seconds(info->lft.hard_add_expires_seconds);
  return association;
}

}  // namespace companions
