#include "helper/store/NetworkPreferencesSchema.h"

#include <string>

namespace helper {

using vpnctl::Error;
using vpnctl::Status;
using vpnctl::Value;

namespace {

constexpr std::string_view kServicePrefix = "/NetworkServices/";
constexpr std::string_view kSetPrefix = "/Sets/";
constexpr std::size_t kMaximumIdentifier = 128;

Error wrong(const std::string &place, std::string_view expectation) {
  return {std::string(kNetworkPreferencesErrorDomain), 1, place + " is not " + std::string(expectation)};
}

bool isIdentifier(std::string_view text) {
  return !text.empty() && text.size() <= kMaximumIdentifier && text.find('/') == std::string_view::npos;
}

// The entry KEY of PARENT is absent or of the type that IS asks for.
Status checkOptional(const Value &parent, const char *key, bool (Value::*is)() const, const std::string &place,
                     std::string_view expectation) {
  const Value *entry = parent.find(key);
  if (entry == nullptr || (entry->*is)()) return {};
  return wrong(place + "/" + key, expectation);
}

Status checkService(const std::string &place, const Value &service) {
  if (!service.isDictionary()) return wrong(place, "a dictionary");
  if (auto status = checkOptional(service, "UserDefinedName", &Value::isString, place, "text"); !status) return status;
  if (const Value *interface = service.find("Interface")) {
    if (!interface->isDictionary()) return wrong(place + "/Interface", "a dictionary");
    if (!(*interface)["Type"].isString()) return wrong(place + "/Interface/Type", "text");
    if (auto status = checkOptional(*interface, "SubType", &Value::isString, place + "/Interface", "text"); !status)
      return status;
  }
  for (const char *entity : {"PPP", "IPv4", "IPv6", "DNS", "Proxies", "IPSec"}) {
    auto status = checkOptional(service, entity, &Value::isDictionary, place, "a dictionary");
    if (!status) return status;
  }
  return {};
}

Status checkServiceLinks(const std::string &place, const Value &links, const Value &services) {
  if (!links.isDictionary()) return wrong(place, "a dictionary");
  for (const auto &[identifier, link] : links.dictionary()) {
    const Value &target = link["__LINK__"];
    if (target.isNull()) continue;  // a service that lives in the set itself
    const std::string linkPlace = std::string(place).append("/").append(identifier).append("/__LINK__");
    if (!target.isString() || !target.string().starts_with(kServicePrefix)) return wrong(linkPlace, "a service's path");
    if (services.find(std::string_view(target.string()).substr(kServicePrefix.size())) == nullptr)
      return wrong(linkPlace, "the path of a service that is there");
  }
  return {};
}

Status checkServiceOrder(const std::string &place, const Value &order) {
  if (order.isNull()) return {};
  if (!order.isArray()) return wrong(place, "an array");
  for (const Value &identifier : order.array())
    if (!identifier.isString()) return wrong(place, "an array of text");
  return {};
}

Status checkSet(const std::string &place, const Value &set, const Value &services) {
  if (!set.isDictionary()) return wrong(place, "a dictionary");
  if (auto status = checkOptional(set, "UserDefinedName", &Value::isString, place, "text"); !status) return status;
  if (auto status = checkOptional(set, "Network", &Value::isDictionary, place, "a dictionary"); !status) return status;
  const Value &network = set["Network"];
  if (const Value *links = network.find("Service")) {
    if (auto status = checkServiceLinks(place + "/Network/Service", *links, services); !status) return status;
  }
  return checkServiceOrder(place + "/Network/Global/IPv4/ServiceOrder", network["Global"]["IPv4"]["ServiceOrder"]);
}

}  // namespace

Status checkNetworkPreferences(const Value &root) {
  if (!root.isDictionary()) return wrong("/", "a dictionary");
  const Value &services = root["NetworkServices"];
  const Value &sets = root["Sets"];
  if (!services.isNull() && !services.isDictionary()) return wrong("/NetworkServices", "a dictionary");
  if (!sets.isNull() && !sets.isDictionary()) return wrong("/Sets", "a dictionary");
  for (const auto &[identifier, service] : services.dictionary()) {
    const std::string place = std::string(kServicePrefix) + identifier;
    if (!isIdentifier(identifier)) return wrong(place, "named by an identifier");
    if (auto status = checkService(place, service); !status) return status;
  }
  for (const auto &[identifier, set] : sets.dictionary()) {
    const std::string place = std::string(kSetPrefix) + identifier;
    if (!isIdentifier(identifier)) return wrong(place, "named by an identifier");
    if (auto status = checkSet(place, set, services); !status) return status;
  }
  const Value *current = root.find("CurrentSet");
  if (current == nullptr) return {};
  if (!current->isString() || !current->string().starts_with(kSetPrefix) ||
      sets.find(std::string_view(current->string()).substr(kSetPrefix.size())) == nullptr)
    return wrong("/CurrentSet", "the path of a set that is there");
  return {};
}

}  // namespace helper
