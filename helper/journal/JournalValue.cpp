#include <algorithm>

#include "helper/common/IPv4Address.h"
#include "helper/journal/Journal.h"

namespace helper {

using foundation::Value;

namespace {

Value data(const std::string &bytes) { return Value::Data(bytes.begin(), bytes.end()); }

std::string bytes(const Value &value) { return {value.data().begin(), value.data().end()}; }

Value dictionary(const char *kind) {
  Value value{Value::Dictionary{}};
  value.set("Kind", kind);
  return value;
}

struct ToValue {
  Value operator()(const StartedProcess &entry) const {
    Value value = dictionary("Process");
    value.set("PID", static_cast<std::int64_t>(entry.pid));
    value.set("StartTime", entry.startTime);
    return value;
  }
  Value operator()(const AddedRoute &entry) const {
    Value value = dictionary("Route");
    value.set("Destination", textOf(entry.route.destination));
    value.set("PrefixLength", entry.route.prefixLength);
    value.set("Gateway", textOf(entry.route.gateway));
    value.set("Source", textOf(entry.route.source));
    value.set("Interface", entry.route.interface);
    value.set("Metric", static_cast<std::int64_t>(entry.route.metric));
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
  Value operator()(const LoadedConnection &entry) const {
    Value value = dictionary("IKEConnection");
    value.set("ControlSocket", entry.controlSocket);
    value.set("Name", entry.name);
    value.set("ReqID", static_cast<std::uint64_t>(entry.reqid));
    return value;
  }
  Value operator()(const StartedDaemon &entry) const {
    Value value = dictionary("IKEDaemon");
    value.set("PID", static_cast<std::int64_t>(entry.pid));
    value.set("StartTime", entry.startTime);
    value.set("UseFile", entry.useFile);
    value.set("RuleWasThere", entry.ruleWasThere);
    return value;
  }
};

bool readAddress(const Value &value, in_addr &address) {
  const auto read = addressFrom(value.string());
  address = read.value_or(in_addr{});
  return read.has_value();
}

std::optional<JournalEntry> entryFrom(const Value &value) {
  const std::string &kind = value["Kind"].string();
  if (kind == "Process") {
    const std::int64_t pid = value["PID"].integerValue();
    // 0 and below name groups of processes, 1 is nobody's child.
    if (pid <= 1 || pid > INT32_MAX) return std::nullopt;
    return StartedProcess{static_cast<pid_t>(pid), value["StartTime"].unsignedIntegerValue()};
  }
  if (kind == "IKEConnection") {
    const std::uint64_t reqid = value["ReqID"].unsignedIntegerValue();
    LoadedConnection entry{value["ControlSocket"].string(), value["Name"].string(), static_cast<std::uint32_t>(reqid)};
    // 0 is what stands for everybody's.
    if (!entry.controlSocket.starts_with('/') || entry.name.empty() || reqid == 0 || reqid > UINT32_MAX)
      return std::nullopt;
    return entry;
  }
  if (kind == "IKEDaemon") {
    const std::int64_t pid = value["PID"].integerValue();
    StartedDaemon entry{static_cast<pid_t>(pid), value["StartTime"].unsignedIntegerValue(), value["UseFile"].string(),
                        value["RuleWasThere"].boolValue()};
    if (pid <= 1 || pid > INT32_MAX || !entry.useFile.starts_with('/')) return std::nullopt;
    return entry;
  }
  if (kind == "Route") {
    AddedRoute entry;
    const std::int64_t prefixLength = value["PrefixLength"].integerValue();
    const std::int64_t metric = value["Metric"].integerValue();
    if (!readAddress(value["Destination"], entry.route.destination) ||
        !readAddress(value["Gateway"], entry.route.gateway) || !readAddress(value["Source"], entry.route.source) ||
        prefixLength < 1 || prefixLength > 32 || metric < 0 || metric > UINT32_MAX ||
        value["Interface"].string().empty())
      return std::nullopt;
    entry.route.prefixLength = static_cast<int>(prefixLength);
    entry.route.interface = value["Interface"].string();
    entry.route.metric = static_cast<std::uint32_t>(metric);
    return entry;
  }
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

foundation::Result<std::vector<JournalEntry>> journalEntries(const Value &value) {
  if (value["Version"] != Value(1) || !value["Entries"].isArray())
    return foundation::Error{"Journal", 0, "not a journal that this version can read"};
  std::vector<JournalEntry> entries;
  for (const Value &item : value["Entries"].array()) {
    auto entry = entryFrom(item);
    if (!entry) return foundation::Error{"Journal", 0, "entry " + std::to_string(entries.size()) + " makes no sense"};
    entries.push_back(std::move(*entry));
  }
  return entries;
}

}  // namespace helper
