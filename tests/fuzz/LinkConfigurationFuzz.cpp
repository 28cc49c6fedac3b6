// A link's configuration and pppd's words from preferences that somebody else wrote: whatever a service holds, the
// words are a well-formed command line, and none of them switches off what must stay on.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "foundation/PropertyList.h"
#include "helper/link/LinkConfiguration.h"
#include "helper/ppp/PPPOptions.h"

namespace {

void require(bool holds) {
  if (!holds) std::abort();
}

void checkWords(const helper::LinkConfiguration &configuration) {
  const helper::PPPSurroundings surroundings{.tunnelType = configuration.tunnelType,
                                             .pluginPath = "/plugin",
                                             .socketPath = "/socket",
                                             .logPath = "/log",
                                             .noScript = "/none"};
  auto words = helper::pppOptions(configuration.ppp, surroundings);
  require(words.size() > 2 && words[0] == "plugin" && words[1] == "/plugin");
  // The account may be called like an option.
  const auto user = std::ranges::find(words, "user");
  require(words.end() - user > 1);
  user[1].clear();
  const auto has = [&](std::string_view word) { return std::ranges::find(words, word) != words.end(); };
  require(has("nodetach") && has("noauth") && has("hide-password") && has("vpnctl-socket"));
  const bool encrypted = helper::wantsMPPE(configuration.ppp, configuration.tunnelType);
  require(encrypted ==
          std::ranges::any_of(words, [](const std::string &word) { return word.starts_with("require-mppe"); }));
  require(!encrypted || !configuration.isInClear());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  const auto root = foundation::propertyListFromData({reinterpret_cast<const char *>(data), size}, "input");
  if (!root) return 0;
  require(!helper::LinkConfiguration::fromPreferences(*root, "no such service"));
  for (const auto &[identifier, service] : (*root)["NetworkServices"].dictionary()) {
    auto configuration = helper::LinkConfiguration::fromPreferences(*root, identifier);
    if (!configuration) continue;
    checkWords(*configuration);
    helper::EngineSettings settings;
    settings.ppp.mtu = 1400;
    settings.ppp.authProtocols = {"MSCHAP2"};
    settings.ppp.dns = false;
    settings.ppp.defaultRoute = true;
    for (const auto mppe : {helper::EngineSettings::MPPE::service, helper::EngineSettings::MPPE::require128,
                            helper::EngineSettings::MPPE::none}) {
      settings.pptp.mppe = mppe;
      configuration->applySettings(settings);
      checkWords(*configuration);
      require(configuration->ppp["LCPMTU"] == foundation::Value(1400));
      require(configuration->ipv4["OverridePrimary"].boolValue());
    }
  }
  return 0;
}
