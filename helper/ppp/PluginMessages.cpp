#include "helper/ppp/PluginMessages.h"

#include <algorithm>
#include <cctype>
#include <cstring>

#include "helper/ppp/PluginProtocol.h"

namespace helper {

namespace {

vpnctl::Error malformed(std::string message) { return {"Plugin", 0, std::move(message)}; }

// A name that goes into no path or message unseen: what the kernel allows, less its oddities.
bool isInterfaceName(const std::string &name) {
  return !name.empty() &&
         std::all_of(
             name.begin(), name.end(),
             [](char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_' || c == '.'; }) &&
         name != "." && name != "..";
}

template <class Record>
bool copyRecord(std::span<const std::uint8_t> bytes, Record &record) {
  if (bytes.size() != sizeof record) return false;
  std::memcpy(&record, bytes.data(), sizeof record);
  return true;
}

vpnctl::Result<PluginMessage> ipUp(std::span<const std::uint8_t> bytes) {
  vpnctl_plugin_ip_up record{};
  if (!copyRecord(bytes, record)) return malformed("an address message of the wrong size");
  PluginIPUp message;
  message.interface.assign(record.interface, strnlen(record.interface, sizeof record.interface));
  if (message.interface.size() == sizeof record.interface || !isInterfaceName(message.interface))
    return malformed("an address message without a usable interface name");
  message.localAddress.s_addr = record.local_address;
  message.peerAddress.s_addr = record.peer_address;
  for (const std::uint32_t address : record.dns)
    if (address != 0 && (message.dns.empty() || message.dns.front().s_addr != address))
      message.dns.push_back(in_addr{address});
  message.mtu = record.mtu;
  message.mru = record.mru;
  message.encrypted = record.encrypted == 1;
  return PluginMessage(std::move(message));
}

}  // namespace

vpnctl::Result<PluginMessage> decodePluginMessage(std::span<const std::uint8_t> record) {
  vpnctl_plugin_header header{};
  if (record.size() < sizeof header) return malformed("a record shorter than its header");
  std::memcpy(&header, record.data(), sizeof header);
  if (header.version != VPNCTL_PLUGIN_VERSION)
    return malformed("version " + std::to_string(header.version) + " of the protocol");
  switch (header.type) {
    case VPNCTL_PLUGIN_NEED_CHANNEL:
      if (record.size() != sizeof header) break;
      return PluginMessage(PluginNeedsChannel{});
    case VPNCTL_PLUGIN_NEED_PASSWORD:
      if (record.size() != sizeof header) break;
      return PluginMessage(PluginNeedsPassword{});
    case VPNCTL_PLUGIN_PHASE: {
      vpnctl_plugin_phase phase{};
      if (!copyRecord(record, phase)) break;
      return PluginMessage(PluginPhase{phase.phase, phase.packets_received});
    }
    case VPNCTL_PLUGIN_IP_UP:
      return ipUp(record);
    case VPNCTL_PLUGIN_EXIT: {
      vpnctl_plugin_exit end{};
      if (!copyRecord(record, end)) break;
      const PPPDispute dispute{.wantedAuthentication = end.wanted_authentication,
                               .address = (end.refused & VPNCTL_PLUGIN_REFUSED_ADDRESS) != 0,
                               .encryption = (end.refused & VPNCTL_PLUGIN_REFUSED_ENCRYPTION) != 0};
      return PluginMessage(PluginExit{end.status, end.packets_received, dispute});
    }
    default:
      return malformed("a record of the unknown type " + std::to_string(header.type));
  }
  return malformed("a record of type " + std::to_string(header.type) + " with the wrong size");
}

}  // namespace helper
