// The machine's settings: any text gives settings within their ranges, and complaints that are plain sentences.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "helper/common/EngineSettings.h"

namespace {

void require(bool holds) {
  if (!holds) std::abort();
}

bool isPlain(const std::string &text) {
  return std::ranges::all_of(
      text, [](char character) { return character >= ' ' && character <= '~'; });
}

}  // namespace

// libconfig 1.5 forgets the buffer of a quoted text that a syntax error is in or behind: at most one per reading.
extern "C" const char *__lsan_default_suppressions() { return "leak:libconfig.so"; }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  const std::string text(reinterpret_cast<const char *>(data), size);
  const auto [settings, complaints] = helper::EngineSettings::parse(text, "engine.conf");
  require(complaints.size() <= 17);
  for (const std::string &complaint : complaints)
    require(complaint.starts_with("engine.conf:") && complaint.ends_with('.') && complaint.size() < 900 &&
            isPlain(complaint));
  require(settings.ppp.mtu.value_or(128) >= 128 && settings.ppp.mtu.value_or(128) <= 16384);
  require(settings.ppp.mru.value_or(128) >= 128 && settings.ppp.mru.value_or(128) <= 16384);
  for (const auto deadline :
       {settings.ike.deadline, settings.l2tp.deadline, settings.pptp.deadline, settings.ppp.deadline})
    require(deadline >= std::chrono::seconds(1) && deadline <= std::chrono::minutes(10));
  require(settings.ike.lifetime >= std::chrono::seconds(10) && settings.ike.espLifetime >= std::chrono::seconds(10));
  require(settings.ike.proposals.size() <= 32 && settings.ike.espProposals.size() <= 32);
  for (const auto *proposals : {&settings.ike.proposals, &settings.ike.espProposals})
    for (const std::string &proposal : *proposals) require(!proposal.empty() && isPlain(proposal));
  require(!settings.ike.remoteIdentity.empty() && isPlain(settings.ike.remoteIdentity));
  require(!settings.ike.localIdentity.empty() && isPlain(settings.ike.localIdentity));
  return 0;
}
