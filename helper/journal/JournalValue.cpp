#include <linux/rtnetlink.h>

#include <algorithm>
#include <array>
#include <string_view>

#include "helper/common/IPv4Address.h"
#include "helper/journal/Journal.h"

namespace helper {

using vpnctl::Value;

namespace {

Value data(const std::string &bytes) { return Value::Data(bytes.begin(), bytes.end()); }

std::string bytes(const Value &value) { return {value.data().begin(), value.data().end()}; }

Value dictionary(const char *kind) {
  Value value{Value::Dictionary{}};
  value.set("Kind", kind);
  return value;
}

// In the order of PolicyRule::Kind.
constexpr std::array<const char *, 4> kRuleNames{"WayToServer", "LocalNetworks", "OwnTable", "End"};

Value networkValue(const IPv4Network &network) {
  Value value{Value::Dictionary{}};
  value.set("Address", textOf(network.address));
  value.set("PrefixLength", network.prefixLength);
  return value;
}

Value ruleValue(const PolicyRule &rule) {
  Value value{Value::Dictionary{}};
  value.set("Rule", kRuleNames.at(static_cast<std::size_t>(rule.kind)));
  value.set("IPv6", rule.ipv6);
  value.set("Server", textOf(rule.server));
  value.set("Table", static_cast<std::uint64_t>(rule.table));
  return value;
}

struct ToValue {
  Value operator()(const StartedProcess &entry) const {
    Value value = dictionary("Process");
    value.set("PID", static_cast<std::int64_t>(entry.pid));
    value.set("StartTime", entry.startTime);
    return value;
  }
  Value operator()(const AddedRules &entry) const {
    Value::Array rules;
    for (const PolicyRule &rule : entry.rules) rules.push_back(ruleValue(rule));
    Value value = dictionary("Rules");
    value.set("Rules", std::move(rules));
    return value;
  }
  Value operator()(const FilledTable &entry) const {
    Value::Array networks;
    for (const IPv4Network &network : entry.networks) networks.push_back(networkValue(network));
    Value value = dictionary("Table");
    value.set("Table", static_cast<std::uint64_t>(entry.table));
    value.set("Networks", std::move(networks));
    return value;
  }
  Value operator()(const ResolvconfRecord &entry) const {
    Value value = dictionary("Resolvconf");
    value.set("Program", entry.program);
    value.set("Key", entry.key);
    return value;
  }
  Value operator()(const ReplacedFile &entry) const {
    Value value = dictionary("File");
    value.set("Path", entry.path);
    if (entry.linkTarget) value.set("LinkTarget", data(*entry.linkTarget));
    if (entry.bytes) value.set("Bytes", data(*entry.bytes));
    value.set("Mode", static_cast<std::uint64_t>(entry.mode));
    value.set("Owner", static_cast<std::uint64_t>(entry.owner));
    value.set("Group", static_cast<std::uint64_t>(entry.group));
    value.set("Replacement", data(entry.replacement));
    value.set("TakenOver", entry.takenOver);
    return value;
  }
  Value operator()(const ProtectedFlow &entry) const {
    Value value = dictionary("IPSec");
    value.set("ReqID", static_cast<std::uint64_t>(entry.reqid));
    return value;
  }
};

bool readAddress(const Value &value, in_addr &address) {
  const auto read = addressFrom(value.string());
  address = read.value_or(in_addr{});
  return read.has_value();
}

// The machine's own tables are not ours to empty.
bool readTable(const Value &value, std::uint32_t &table) {
  const std::uint64_t number = value.unsignedIntegerValue();
  table = static_cast<std::uint32_t>(number);
  return number > RT_TABLE_LOCAL && number <= UINT32_MAX;
}

std::optional<PolicyRule> ruleFrom(const Value &value) {
  PolicyRule rule;
  const auto *const name = std::ranges::find(kRuleNames, value["Rule"].string());
  if (name == kRuleNames.end()) return std::nullopt;
  rule.kind = static_cast<PolicyRule::Kind>(name - kRuleNames.begin());
  rule.ipv6 = value["IPv6"].boolValue();
  if (!readAddress(value["Server"], rule.server)) return std::nullopt;
  if (rule.kind != PolicyRule::Kind::localNetworks && !readTable(value["Table"], rule.table)) return std::nullopt;
  return rule;
}

std::optional<JournalEntry> rulesFrom(const Value &value) {
  AddedRules entry;
  for (const Value &item : value["Rules"].array()) {
    const auto rule = ruleFrom(item);
    if (!rule) return std::nullopt;
    entry.rules.push_back(*rule);
  }
  return entry;
}

std::optional<JournalEntry> tableFrom(const Value &value) {
  FilledTable entry;
  if (!readTable(value["Table"], entry.table)) return std::nullopt;
  for (const Value &item : value["Networks"].array()) {
    IPv4Network network;
    const std::int64_t prefixLength = item["PrefixLength"].integerValue();
    if (!readAddress(item["Address"], network.address) || prefixLength < 0 || prefixLength > 32) return std::nullopt;
    network.prefixLength = static_cast<int>(prefixLength);
    entry.networks.push_back(network);
  }
  return entry;
}

std::optional<JournalEntry> entryFrom(const Value &value) {
  const std::string &kind = value["Kind"].string();
  if (kind == "Process") {
    const std::int64_t pid = value["PID"].integerValue();
    // 0 and below name groups of processes, 1 is nobody's child.
    if (pid <= 1 || pid > INT32_MAX) return std::nullopt;
    return StartedProcess{static_cast<pid_t>(pid), value["StartTime"].unsignedIntegerValue()};
  }
  if (kind == "IPSec") {
    const std::uint64_t reqid = value["ReqID"].unsignedIntegerValue();
    // 0 is what stands for everybody's.
    if (reqid == 0 || reqid > UINT32_MAX) return std::nullopt;
    return ProtectedFlow{static_cast<std::uint32_t>(reqid)};
  }
  if (kind == "Rules") return rulesFrom(value);
  if (kind == "Table") return tableFrom(value);
  if (kind == "Resolvconf") {
    ResolvconfRecord entry{value["Program"].string(), value["Key"].string()};
    if (!entry.program.starts_with('/') || entry.key.empty()) return std::nullopt;
    return entry;
  }
  if (kind == "File") {
    ReplacedFile entry;
    entry.path = value["Path"].string();
    if (!entry.path.starts_with('/')) return std::nullopt;
    if (value.find("LinkTarget") != nullptr) entry.linkTarget = bytes(value["LinkTarget"]);
    if (value.find("Bytes") != nullptr) entry.bytes = bytes(value["Bytes"]);
    entry.mode = static_cast<mode_t>(value["Mode"].unsignedIntegerValue() & 0777);
    entry.owner = static_cast<uid_t>(value["Owner"].unsignedIntegerValue());
    entry.group = static_cast<gid_t>(value["Group"].unsignedIntegerValue());
    entry.replacement = bytes(value["Replacement"]);
    entry.takenOver = value["TakenOver"].boolValue();
    return entry;
  }
  return std::nullopt;
}

}  // namespace

Value journalValue(const std::vector<JournalEntry> &entries) {
  Value::Array array;
  for (const JournalEntry &entry : entries) array.push_back(std::visit(ToValue{}, entry));
  Value value{Value::Dictionary{}};
  value.set("Version", 1);
  value.set("Entries", std::move(array));
  return value;
}

vpnctl::Result<std::vector<JournalEntry>> journalEntries(const Value &value) {
  if (value["Version"] != Value(1) || !value["Entries"].isArray())
    return vpnctl::Error{"Journal", 0, "not a journal that this version can read"};
  std::vector<JournalEntry> entries;
  for (const Value &item : value["Entries"].array()) {
    auto entry = entryFrom(item);
    if (!entry) return vpnctl::Error{"Journal", 0, "entry " + std::to_string(entries.size()) + " makes no sense"};
    entries.push_back(std::move(*entry));
  }
  return entries;
}

}  // namespace helper
