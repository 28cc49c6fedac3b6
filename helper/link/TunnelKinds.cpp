#include "helper/link/TunnelKinds.h"

#include <algorithm>
#include <array>

#include "helper/common/DefaultMTU.h"
#include "helper/ike/IKEAssociation.h"
#include "helper/ike/IKEPath.h"
#include "helper/l2tp/L2TPTunnel.h"
#include "helper/pptp/PPTPTunnel.h"

namespace helper {

namespace {

sockaddr_in addressOf(in_addr server, std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr = server;
  return address;
}

TunnelFactory preparePPTP(const TunnelContext &context, const LinkPlan &plan) {
  return [context, &plan](in_addr server, Tunnel::Handlers handlers) {
    return std::make_unique<PPTPTunnel>(context.event, addressOf(server, PPTPTunnel::kPort), plan.pptp,
                                        std::make_unique<KernelPPTPDataPath>(), std::move(handlers));
  };
}

TunnelFactory prepareL2TP(const TunnelContext &context, const LinkPlan &plan) {
  L2TPTunnel::AssociationFactory makeAssociation;
  if (!plan.sharedSecretItem.empty()) {
    const IKEContext ike{context.event, context.secrets, plan.secretUse, context.log, context.journal, plan.ike};
    makeAssociation = [ike, spare = std::make_shared<IKESpare>(context.event, ikePath()),
                       item = plan.sharedSecretItem](IPSecAssociation::Handlers handlers) {
      return makeIKEAssociation(ike, spare, item, std::move(handlers));
    };
  }
  return [context, &plan, makeAssociation](in_addr server, Tunnel::Handlers handlers) {
    return std::make_unique<L2TPTunnel>(
        context.event, addressOf(server, L2TPSocket::kPort), plan.l2tp, context.log,
        L2TPTunnel::Parts{.makeAssociation = makeAssociation, .dataPath = std::make_unique<KernelL2TPDataPath>()},
        std::move(handlers));
  };
}

constexpr std::array kRows{
    TunnelKindRow{
        .kind = TunnelKind::pptp,
        .name = "PPTP",
        .mtu = kDefaultPPTPMTU,
        .needsIPSec = false,
        .nothingArrived =
            "The server took the call, but not one of its packets arrived: something on the way (a firewall, a router "
            "without PPTP pass-through) blocks GRE, IP protocol 47; let it through.",
        .deadline = [](const LinkPlan &plan) { return plan.pptp.deadline; },
        .deadPeerDelay = [](const LinkPlan &plan) { return plan.pptp.deadPeerDelay; },
        .prepare = preparePPTP},
    TunnelKindRow{
        .kind = TunnelKind::l2tp,
        .name = "L2TP",
        .mtu = kDefaultL2TPMTU,
        .needsIPSec = true,
        .nothingArrived =
            "The server took the call, but not one packet of PPP arrived: PPP does not start there, which its own log "
            "explains, or something on the way drops larger IPSec packets.",
        // From one port and from another.
        .deadline = [](const LinkPlan &plan) { return 2 * (plan.ike.deadline + plan.l2tp.deadline); },
        .deadPeerDelay = [](const LinkPlan &plan) { return plan.l2tp.deadPeerDelay; },
        .prepare = prepareL2TP},
};

}  // namespace

const TunnelKindRow &tunnelKind(TunnelKind kind) { return *std::ranges::find(kRows, kind, &TunnelKindRow::kind); }

const TunnelKindRow *tunnelKindCalled(std::string_view name) {
  const auto *row = std::ranges::find_if(kRows, [name](const TunnelKindRow &other) { return name == other.name; });
  return row == kRows.end() ? nullptr : row;
}

}  // namespace helper
