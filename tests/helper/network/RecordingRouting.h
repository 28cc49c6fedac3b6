// A kernel's routing that is kept in memory, and fails where a test says so.

#pragma once

#include <algorithm>
#include <cerrno>
#include <map>
#include <string>
#include <vector>

#include "helper/network/Routing.h"

namespace support {

class RecordingRouting : public helper::Routing {
 public:
  vpnctl::Status add(const helper::PolicyRule &rule) override {
    if (const vpnctl::Status status = attempt("add"); !status) return status;
    if (hasIPv6 || !rule.ipv6) present.push_back(rule);
    return {};
  }
  vpnctl::Status remove(const helper::PolicyRule &rule) override {
    removed.push_back(rule);
    if (const vpnctl::Status status = attempt("remove"); !status) return status;
    if (const auto found = std::ranges::find(present, rule); found != present.end()) present.erase(found);
    return {};
  }
  vpnctl::Result<std::vector<helper::PolicyRule>> rules() override {
    if (const vpnctl::Status status = attempt("rules"); !status) return status.error();
    return present;
  }
  vpnctl::Status lead(std::uint32_t table, const helper::IPv4Network &network, const std::string &interface) override {
    if (interfaceError != 0) return vpnctl::errnoError(interfaceError, "lead");
    if (const vpnctl::Status status = attempt("lead"); !status) return status;
    led[{table, helper::textOf(network)}] = interface;
    return {};
  }
  vpnctl::Status refuse(std::uint32_t table, const helper::IPv4Network &network) override {
    if (const vpnctl::Status status = attempt("refuse"); !status) return status;
    refused[{table, helper::textOf(network)}] = "refused";
    return {};
  }
  vpnctl::Status refuseIPv6(std::uint32_t table) override {
    if (const vpnctl::Status status = attempt("refuse IPv6"); !status) return status;
    refused[{table, "IPv6"}] = "refused";
    return {};
  }
  vpnctl::Status clear(const helper::FilledTable &table) override {
    if (const vpnctl::Status status = attempt("clear"); !status) return status;
    for (auto *routes : {&led, &refused})
      std::erase_if(*routes, [&](const auto &route) { return route.first.first == table.table; });
    return {};
  }
  vpnctl::Result<std::vector<helper::IPv4Network>> networks(const std::string &besides) override {
    if (const vpnctl::Status status = attempt("networks"); !status) return status.error();
    return besides == "ppp0" ? around : std::vector<helper::IPv4Network>();
  }
  vpnctl::Status detach(in_addr destination, const std::string &interface) override {
    detached.push_back(helper::textOf(destination) + " " + interface);
    return {};
  }

  using Routes = std::map<std::pair<std::uint32_t, std::string>, std::string>;  // by table and network
  std::string failing;                                                          // the call that fails
  int interfaceError = 0;                                                       // of lead()
  bool hasIPv6 = true;
  std::vector<helper::PolicyRule> present;
  std::vector<helper::PolicyRule> removed;
  Routes led;
  Routes refused;
  std::vector<std::string> detached;
  std::vector<helper::IPv4Network> around;  // of interfaces other than ppp0

 private:
  vpnctl::Status attempt(const std::string &call) const {
    if (call == failing) return vpnctl::Error{"Netlink", 0, "it sticks"};
    return {};
  }
};

}  // namespace support
