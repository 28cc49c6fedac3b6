#include "helper/link/TunnelFactory.h"

#include <algorithm>
#include <array>

#include "foundation/Assertion.h"
#include "helper/link/PPTPTunnel.h"

namespace helper {

namespace {

struct Kind {
  const char *type;
  std::unique_ptr<Tunnel> (*make)(sd_event *event, const LinkConfiguration &configuration, in_addr server,
                                  Tunnel::Handlers handlers);
};

constexpr std::array kKinds{
    Kind{"PPTP",
         [](sd_event *event, const LinkConfiguration &, in_addr server, Tunnel::Handlers handlers)
             -> std::unique_ptr<Tunnel> { return std::make_unique<PPTPTunnel>(event, server, std::move(handlers)); }},
};

const Kind *find(const std::string &tunnelType) {
  const auto *kind = std::find_if(kKinds.begin(), kKinds.end(), [&](const Kind &k) { return tunnelType == k.type; });
  return kind == kKinds.end() ? nullptr : kind;
}

}  // namespace

bool knowsTunnel(const std::string &tunnelType) { return find(tunnelType) != nullptr; }

std::unique_ptr<Tunnel> makeTunnel(sd_event *event, const LinkConfiguration &configuration, in_addr server,
                                   Tunnel::Handlers handlers) {
  const Kind *kind = find(configuration.tunnelType);
  FOUNDATION_ASSERT(kind != nullptr);
  return kind->make(event, configuration, server, std::move(handlers));
}

}  // namespace helper
