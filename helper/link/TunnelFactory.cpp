#include "helper/link/TunnelFactory.h"

#include <algorithm>
#include <array>

#include "foundation/Assertion.h"
#include "helper/ike/IKEAssociation.h"
#include "helper/l2tp/L2TPTunnel.h"
#include "helper/pptp/PPTPTunnel.h"

namespace helper {

using std::chrono::milliseconds;

namespace {

struct Kind {
  const char *type;
  milliseconds (*deadline)(const EngineSettings &settings);
  std::unique_ptr<Tunnel> (*make)(const TunnelSurroundings &surroundings, const LinkConfiguration &configuration,
                                  in_addr server, Tunnel::Handlers handlers);
};

std::unique_ptr<Tunnel> makePPTP(const TunnelSurroundings &surroundings, const LinkConfiguration &configuration,
                                 in_addr server, Tunnel::Handlers handlers) {
  return std::make_unique<PPTPTunnel>(surroundings.event, server, configuration.settings.pptp, std::move(handlers));
}

std::unique_ptr<Tunnel> makeL2TP(const TunnelSurroundings &surroundings, const LinkConfiguration &configuration,
                                 in_addr server, Tunnel::Handlers handlers) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(L2TPSocket::kPort);
  address.sin_addr = server;
  const IKESurroundings ike{surroundings.event, surroundings.secrets, surroundings.log, surroundings.journal,
                            configuration.settings};
  auto makeAssociation = [ike, ipsec = configuration.ipsec](IPSecAssociation::Handlers associationHandlers) {
    return makeIKEAssociation(ike, ipsec, std::move(associationHandlers));
  };
  return std::make_unique<L2TPTunnel>(
      surroundings.event, address, configuration.ipsec, configuration.settings.l2tp, surroundings.log,
      L2TPTunnel::Parts{std::move(makeAssociation), std::make_unique<KernelL2TPDataPath>()}, std::move(handlers));
}

constexpr std::array kKinds{
    Kind{"PPTP", [](const EngineSettings &settings) { return settings.pptp.deadline; }, makePPTP},
    Kind{"L2TP", [](const EngineSettings &settings) { return settings.ike.deadline + settings.l2tp.deadline; },
         makeL2TP},
};

const Kind *find(const std::string &tunnelType) {
  const auto *kind = std::find_if(kKinds.begin(), kKinds.end(), [&](const Kind &k) { return tunnelType == k.type; });
  return kind == kKinds.end() ? nullptr : kind;
}

const Kind &known(const std::string &tunnelType) {
  const Kind *kind = find(tunnelType);
  FOUNDATION_ASSERT(kind != nullptr);
  return *kind;
}

}  // namespace

bool knowsTunnel(const std::string &tunnelType) { return find(tunnelType) != nullptr; }

milliseconds tunnelDeadline(const LinkConfiguration &configuration) {
  return known(configuration.tunnelType).deadline(configuration.settings);
}

std::unique_ptr<Tunnel> makeTunnel(const TunnelSurroundings &surroundings, const LinkConfiguration &configuration,
                                   in_addr server, Tunnel::Handlers handlers) {
  return known(configuration.tunnelType).make(surroundings, configuration, server, std::move(handlers));
}

}  // namespace helper
