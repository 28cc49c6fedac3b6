#include "helper/journal/LinkNote.h"

#include <algorithm>
#include <ctime>

#include "helper/common/IPv4Address.h"

namespace helper {

using vpnctl::Value;

namespace {

bool isSame(in_addr a, in_addr b) { return a.s_addr == b.s_addr; }

Value upValue(const LinkNote::Up &up) {
  Value::Array nameServers;
  for (const in_addr server : up.nameServers) nameServers.emplace_back(textOf(server));
  Value value{Value::Dictionary{}};
  value.set("Interface", up.interface);
  value.set("Server", textOf(up.server));
  value.set("Since", static_cast<std::int64_t>(up.since.count()));
  value.set("NameServers", std::move(nameServers));
  value.set("EncryptedByPPP", up.encryptedByPPP);
  return value;
}

std::optional<LinkNote::Up> upFrom(const Value &value) {
  LinkNote::Up up;
  const auto server = addressFrom(value["Server"].string());
  if (value["Interface"].string().empty() || !server) return std::nullopt;
  up.interface = value["Interface"].string();
  up.server = *server;
  up.since = std::chrono::seconds(value["Since"].integerValue());
  for (const Value &item : value["NameServers"].array()) {
    const auto nameServer = addressFrom(item.string());
    if (!nameServer) return std::nullopt;
    up.nameServers.push_back(*nameServer);
  }
  up.encryptedByPPP = value["EncryptedByPPP"].boolValue();
  return up;
}

}  // namespace

bool LinkNote::Up::operator==(const Up &other) const {
  return interface == other.interface && isSame(server, other.server) && since == other.since &&
         std::ranges::equal(nameServers, other.nameServers, isSame) && encryptedByPPP == other.encryptedByPPP;
}

Value noteValue(const LinkNote &note) {
  Value value{Value::Dictionary{}};
  value.set("HelperPID", static_cast<std::int64_t>(note.helper.pid));
  value.set("HelperStartTime", note.helper.startTime);
  value.set("Server", note.server);
  value.set("Protocol", note.protocol);
  value.set("Begun", static_cast<std::int64_t>(note.begun.count()));
  if (note.up) value.set("Up", upValue(*note.up));
  return value;
}

std::optional<LinkNote> noteFrom(const Value &value) {
  const std::int64_t pid = value["HelperPID"].integerValue();
  if (pid <= 1 || pid > INT32_MAX || value["Protocol"].string().empty()) return std::nullopt;
  LinkNote note;
  note.helper = {static_cast<pid_t>(pid), value["HelperStartTime"].unsignedIntegerValue()};
  note.server = value["Server"].string();
  note.protocol = value["Protocol"].string();
  note.begun = std::chrono::seconds(value["Begun"].integerValue());
  if (value.find("Up") == nullptr) return note;
  note.up = upFrom(value["Up"]);
  return note.up ? std::optional(note) : std::nullopt;
}

std::chrono::seconds timeSinceBoot() {
  timespec time{};
  ::clock_gettime(CLOCK_BOOTTIME, &time);
  return std::chrono::seconds(time.tv_sec);
}

}  // namespace helper
