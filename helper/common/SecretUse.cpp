#include "helper/common/SecretUse.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>

namespace helper {

using vpnctl::Value;

namespace {

struct Place {
  std::string_view entity;
  std::string_view key;
  bool operator==(const Place &) const = default;
  std::string text() const { return std::string(entity) + "/" + std::string(key); }
};

constexpr std::array kTerms{
    Place{"Interface", "Type"},       Place{"Interface", "SubType"},     Place{"IPSec", "AuthenticationMethod"},
    Place{"IPSec", "SharedSecret"},   Place{"PPP", "AuthName"},          Place{"PPP", "AuthPassword"},
    Place{"PPP", "AuthProtocol"},     Place{"PPP", "CCPEnabled"},        Place{"PPP", "CCPMPPE128Enabled"},
    Place{"PPP", "CCPMPPE40Enabled"}, Place{"PPP", "CommRemoteAddress"},
};

constexpr std::array kOfAStart{
    Place{"IPv4", "OverridePrimary"},
    Place{"PPP", "DisconnectOnIdle"},
    Place{"PPP", "DisconnectOnIdleTimer"},
    Place{"PPP", "DisconnectOnLogout"},
    Place{"PPP", "IPCPCompressionVJ"},
    Place{"PPP", "IPCPUsePeerDNS"},
    Place{"PPP", "LCPCompressionACField"},
    Place{"PPP", "LCPCompressionPField"},
    Place{"PPP", "LCPEchoEnabled"},
    Place{"PPP", "LCPEchoFailure"},
    Place{"PPP", "LCPEchoInterval"},
    Place{"PPP", "LCPMRU"},
    Place{"PPP", "LCPMTU"},
    Place{"PPP", "VerboseLogging"},
};

vpnctl::Error refused(const std::string &place) {
  return {std::string(vpnctl::kPOSIXErrorDomain), EINVAL,
          "a start may not say " + place + " otherwise than the stored service"};
}

}  // namespace

SecretUse SecretUse::of(const Value &service, uid_t owner) {
  SecretUse use{.owner = owner};
  for (const auto &[entity, key] : kTerms) {
    const Value *entry = service[entity].find(key);
    if (entry == nullptr) continue;
    Value entries = use.terms[entity];
    entries.set(std::string(key), *entry);
    use.terms.set(std::string(entity), std::move(entries));
  }
  return use;
}

std::optional<std::string> SecretUse::differenceTo(const SecretUse &other) const {
  const auto place = std::ranges::find_if(
      kTerms, [&](const Place &each) { return terms[each.entity][each.key] != other.terms[each.entity][each.key]; });
  if (place == kTerms.end()) return std::nullopt;
  return place->text();
}

vpnctl::Status checkStartOptions(const Value &service, const Value &startOptions) {
  for (const auto &[entity, entries] : startOptions.dictionary()) {
    if (entries == service[entity]) continue;
    if (!entries.isDictionary()) return refused(entity);
    for (const auto &[key, entry] : entries.dictionary()) {
      const Place place{entity, key};
      if (entry != service[entity][key] && std::ranges::find(kOfAStart, place) == kOfAStart.end())
        return refused(place.text());
    }
  }
  return {};
}

}  // namespace helper
