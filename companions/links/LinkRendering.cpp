#include "companions/links/LinkRendering.h"

#include <array>
#include <cstdio>
#include <ctime>
#include <string_view>

namespace companions {

using std::chrono::seconds;
using Encryption = LinkState::Encryption;
using Stage = LinkState::Stage;

namespace {

constexpr std::size_t kLabelWidth = 14;

std::string joined(const std::vector<std::string> &words, std::string_view between) {
  std::string text;
  for (const std::string &word : words) text += (text.empty() ? "" : std::string(between)) + word;
  return text;
}

std::vector<std::string> networkTexts(const LinkState &link) {
  std::vector<std::string> texts;
  for (const helper::IPv4Network &network : link.networks) texts.push_back(helper::textOf(network));
  return texts;
}

seconds between(Moment from, Moment to) { return std::chrono::floor<seconds>(to - from); }

std::string localTime(Moment moment) {
  const std::time_t time = std::chrono::system_clock::to_time_t(moment);
  std::tm parts{};
  ::localtime_r(&time, &parts);
  std::array<char, 32> text{};
  return {text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &parts)};
}

std::string ageText(Moment from, Moment now) {
  return "for " + durationText(between(from, now)) + ", since " + localTime(from);
}

std::string stageText(const LinkState &link, Moment now) {
  switch (link.stage) {
    case Stage::comingUp:
      return "coming up" + (link.begun ? " " + ageText(*link.begun, now) : std::string());
    case Stage::up:
      if (link.upSince) return "up " + ageText(*link.upSince, now);
      // When it came up only root sees.
      return "up" + (link.begun ? "; begun " + localTime(*link.begun) : std::string());
    case Stage::goingDown:
      return "going down";
    case Stage::leftBehind:
      return "left behind: its helper has died; the next connection takes back what it did";
    case Stage::unknown:
      return "not seen: whether its helper still runs is hidden from this user";
  }
  return {};
}

const char *stageName(Stage stage) {
  switch (stage) {
    case Stage::comingUp:
      return "coming-up";
    case Stage::up:
      return "up";
    case Stage::goingDown:
      return "going-down";
    case Stage::leftBehind:
      return "left-behind";
    case Stage::unknown:
      return "unknown";
  }
  return "";
}

std::string carriesText(const LinkState &link) {
  if (link.carriesEverything()) return "everything";
  if (!link.networks.empty()) return joined(networkTexts(link), ", ");
  return "nothing but what is sent to its other end";
}

std::string encryptionText(const LinkState &link) {
  switch (link.encryption) {
    case Encryption::ipsec:
      return "IPSec, ESP " + link.ipsec->algorithms + (link.ipsec->insideUDP ? ", inside UDP" : "");
    case Encryption::mppe:
      return "MPPE";
    case Encryption::none:
      return "none";
    case Encryption::unknown:
      break;
  }
  return {};
}

std::string keysText(const IPSecState &ipsec, Moment now) {
  std::string text = "made " + durationText(between(ipsec.made, now)) + " ago";
  // Without an end they are never renewed.
  if (ipsec.ends <= ipsec.made) return text;
  if (ipsec.renewedUntil <= now) return text + "; new ones are due";
  const std::string latest = durationText(between(now, ipsec.renewedUntil));
  if (ipsec.renewedFrom <= now || ipsec.renewedFrom == ipsec.renewedUntil) return text + "; new ones within " + latest;
  return text + "; new ones in " + durationText(between(now, ipsec.renewedFrom)) + " to " + latest;
}

std::string processesText(const LinkState &link) {
  std::vector<std::string> texts;
  if (link.helper != 0) texts.push_back("helper " + std::to_string(link.helper));
  if (link.pppd != 0) texts.push_back("pppd " + std::to_string(link.pppd));
  if (link.ike != 0) texts.push_back("vpnctl-ike " + std::to_string(link.ike));
  return joined(texts, ", ");
}

class Block {
 public:
  explicit Block(const std::string &title) : text_(title + "\n") {}

  void line(std::string_view label, const std::string &value) {
    if (value.empty()) return;
    std::string padded(label);
    padded.resize(kLabelWidth, ' ');
    text_ += "  " + padded + value + "\n";
  }
  std::string take() { return std::move(text_); }

 private:
  std::string text_;
};

std::string titleOf(const LinkState &link) {
  if (link.server.empty() && link.address.empty()) return "link " + std::to_string(link.number);
  if (link.server.empty() || link.address.empty() || link.server == link.address)
    return link.server.empty() ? link.address : link.server;
  return link.server + " (" + link.address + ")";
}

std::string trafficText(std::uint64_t bytes, std::uint64_t packets) {
  return sizeText(bytes) + " in " + std::to_string(packets) + (packets == 1 ? " packet" : " packets");
}

}  // namespace

std::string durationText(seconds duration) {
  const auto count = std::max<std::int64_t>(duration.count(), 0);
  const auto two = [](std::int64_t large, const char *largeUnit, std::int64_t small, const char *smallUnit) {
    return std::to_string(large) + " " + largeUnit + " " + std::to_string(small) + " " + smallUnit;
  };
  if (count >= 86400) return two(count / 86400, "d", count % 86400 / 3600, "h");
  if (count >= 3600) return two(count / 3600, "h", count % 3600 / 60, "min");
  if (count >= 60) return two(count / 60, "min", count % 60, "s");
  return std::to_string(count) + " s";
}

std::string sizeText(std::uint64_t bytes) {
  static constexpr std::array<const char *, 6> kUnits{"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  if (bytes < 1024) return std::to_string(bytes) + " B";
  auto size = static_cast<double>(bytes) / 1024;
  std::size_t unit = 0;
  // What would be rounded to 1024.0 is one of the next.
  for (; size >= 1023.95 && unit + 1 < kUnits.size(); ++unit) size /= 1024;
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%.1f %s", size, kUnits.at(unit));
  return text.data();
}

std::string textOf(const LinkState &link, Moment now) {
  Block block(titleOf(link));
  block.line("state", stageText(link, now));
  block.line("protocol", link.protocol == "L2TP" ? "L2TP over IPSec" : link.protocol);
  if (!link.interface.empty()) block.line("interface", link.interface + ", MTU " + std::to_string(link.mtu));
  if (!link.localAddress.empty()) block.line("addresses", link.localAddress + " here, " + link.peerAddress + " there");
  if (link.traffic) {
    block.line("received", trafficText(link.traffic->bytesIn, link.traffic->packetsIn));
    block.line("sent", trafficText(link.traffic->bytesOut, link.traffic->packetsOut));
  }
  if (!link.interface.empty()) block.line("carries", carriesText(link));
  block.line("name servers", joined(link.nameServers, ", "));
  block.line("encryption", encryptionText(link));
  if (link.ipsec) block.line("keys", keysText(*link.ipsec, now));
  block.line("processes", processesText(link));
  if (!link.fault.empty()) block.line("IPSec", "not seen: " + link.fault);
  if (!link.needsRoot.empty()) block.line("needs root", joined(link.needsRoot, ", "));
  return block.take();
}

JSONLine jsonOf(const LinkState &link) {
  JSONLine json;
  const auto moment = [&json](const char *name, const std::optional<Moment> &when) {
    if (when) json.add(name, timeStamp(*when));
  };
  const auto process = [&json](const char *name, pid_t pid) {
    if (pid != 0) json.add(name, std::int64_t{pid});
  };
  json.add("link", std::int64_t{link.number}).add("state", stageName(link.stage));
  json.addIfAny("server", link.server).addIfAny("address", link.address).addIfAny("protocol", link.protocol);
  moment("begun", link.begun);
  moment("up_since", link.upSince);
  json.addIfAny("interface", link.interface);
  if (!link.interface.empty()) json.add("mtu", std::int64_t{link.mtu});
  json.addIfAny("local", link.localAddress).addIfAny("peer", link.peerAddress);
  if (link.traffic) {
    json.add("bytes_in", static_cast<std::int64_t>(link.traffic->bytesIn));
    json.add("bytes_out", static_cast<std::int64_t>(link.traffic->bytesOut));
    json.add("packets_in", static_cast<std::int64_t>(link.traffic->packetsIn));
    json.add("packets_out", static_cast<std::int64_t>(link.traffic->packetsOut));
  }
  if (!link.interface.empty()) json.add("networks", networkTexts(link));
  if (!link.nameServers.empty()) json.add("name_servers", link.nameServers);
  if (link.encryption == Encryption::mppe) json.add("encryption", "mppe");
  if (link.encryption == Encryption::none) json.add("encryption", "none");
  if (link.ipsec) {
    json.add("encryption", "ipsec").add("esp", link.ipsec->algorithms).addTruth("esp_in_udp", link.ipsec->insideUDP);
    moment("keys_made", link.ipsec->made);
    if (link.ipsec->ends > link.ipsec->made) {
      moment("rekey_from", link.ipsec->renewedFrom);
      moment("rekey_until", link.ipsec->renewedUntil);
      moment("keys_end", link.ipsec->ends);
    }
  }
  process("helper", link.helper);
  process("pppd", link.pppd);
  process("ike", link.ike);
  json.addIfAny("fault", link.fault);
  if (!link.needsRoot.empty()) json.add("needs_root", link.needsRoot);
  return json;
}

}  // namespace companions
