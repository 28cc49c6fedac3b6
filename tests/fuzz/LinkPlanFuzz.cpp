// A link's plan and pppd's words from preferences that somebody else wrote: whatever a service holds, the words are a
// well-formed command line, and none of them switches off what must stay on; whatever a start asks for, secrets go
// where the service says.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "foundation/PropertyList.h"
#include "helper/link/LinkPlan.h"
#include "helper/ppp/PPPOptions.h"

namespace {

void require(bool holds) {
  if (!holds) std::abort();
}

void checkWords(const helper::LinkPlan &plan) {
  const helper::PPPPaths paths{.plugin = "/plugin", .socket = "/socket", .noScript = "/none"};
  auto words = helper::pppOptions(plan.ppp, paths);
  require(words.size() > 2 && words[0] == "plugin" && words[1] == "/plugin");
  // The account may be called like an option.
  const auto user = std::ranges::find(words, "user");
  require(words.end() - user > 1);
  user[1].clear();
  const auto has = [&](std::string_view word) { return std::ranges::find(words, word) != words.end(); };
  require(has("nodetach") && has("noauth") && has("hide-password") && has("vpnctl-socket"));
  const bool encrypted = plan.ppp.mppe != helper::MPPE::none;
  require(encrypted ==
          std::ranges::any_of(words, [](const std::string &word) { return word.starts_with("require-mppe"); }));
  require(!encrypted || (!plan.isInClear() && plan.kind == helper::TunnelKind::pptp));
  require(plan.ppp.mtu >= 128 && plan.ppp.mru >= 128 && plan.ppp.echoInterval.count() >= 0);
  require(!plan.description().empty());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  const auto root = vpnctl::propertyListFromData({reinterpret_cast<const char *>(data), size}, "input");
  if (!root) return 0;
  helper::EngineSettings settings;
  require(!helper::LinkPlan::make(*root, {"no such service"}, settings));
  for (const auto &[identifier, service] : (*root)["NetworkServices"].dictionary()) {
    // A service laid over itself is the same one.
    const auto plan = helper::LinkPlan::make(*root, {identifier, service}, settings);
    const auto plain = helper::LinkPlan::make(*root, {identifier}, settings);
    require(static_cast<bool>(plan) == static_cast<bool>(plain));
    if (!plan) continue;
    require(plan->ppp == plain->ppp);
    // Any other start reaches the same server in the same way, or none.
    for (const auto &[other, options] : (*root)["NetworkServices"].dictionary()) {
      const auto started = helper::LinkPlan::make(*root, {identifier, options}, settings);
      if (!started) continue;
      require(started->kind == plain->kind && started->server == plain->server);
      require(started->sharedSecretItem == plain->sharedSecretItem);
      require(started->ppp.account == plain->ppp.account && started->ppp.passwordItem == plain->ppp.passwordItem);
      require(started->ppp.authProtocols == plain->ppp.authProtocols && started->ppp.mppe == plain->ppp.mppe);
      require(!started->secretUse.differenceTo(plain->secretUse));
    }
    checkWords(*plan);
    helper::EngineSettings machine;
    machine.ppp.mtu = 1400;
    machine.ppp.authProtocols = {"MSCHAP2"};
    machine.ppp.dns = false;
    machine.ppp.defaultRoute = true;
    for (const auto mppe : {helper::EngineSettings::MPPE::service, helper::EngineSettings::MPPE::require128,
                            helper::EngineSettings::MPPE::none}) {
      machine.pptp.mppe = mppe;
      const auto ruled = helper::LinkPlan::make(*root, {identifier}, machine);
      require(static_cast<bool>(ruled));
      checkWords(*ruled);
      require(ruled->ppp.mtu == 1400 && ruled->carriesEverything && !ruled->ppp.peerDNS);
    }
  }
  return 0;
}
