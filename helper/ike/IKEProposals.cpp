#include "helper/ike/IKEProposals.h"

namespace helper {

using vpnctl::Error;
using vpnctl::Result;

namespace {

template <class Proposal>
std::string commaSeparated(const std::vector<Proposal> &proposals) {
  std::string text;
  for (const Proposal &proposal : proposals) text += (text.empty() ? "" : ", ") + proposal.text();
  return text;
}

// Those of TEXTS that PARSE takes, one by one and then together.
template <class Proposal>
Result<std::vector<Proposal>> usable(const std::vector<std::string> &texts,
                                     Result<std::vector<Proposal>> (*parse)(const std::vector<std::string> &),
                                     std::vector<std::string> &unusable) {
  std::vector<std::string> good;
  for (const std::string &text : texts)
    if (const auto parsed = parse({text}))
      good.push_back(text);
    else
      unusable.push_back(parsed.error().message);
  if (good.empty()) return Error{"ISAKMP", 0, unusable.back()};
  return parse(good);
}

}  // namespace

Result<IKEProposals> IKEProposals::from(const EngineSettings::IKE &settings, bool few,
                                        std::vector<std::string> &unusable) {
  IKEProposals proposals{few ? isakmp::fewIKEProposals() : isakmp::defaultIKEProposals(),
                         few ? isakmp::fewESPProposals() : isakmp::defaultESPProposals()};
  if (!settings.proposals.empty()) {
    auto set = usable(settings.proposals, isakmp::parseIKEProposals, unusable);
    if (!set) return set.error();
    proposals.ike = std::move(*set);
  }
  if (!settings.espProposals.empty()) {
    auto set = usable(settings.espProposals, isakmp::parseESPProposals, unusable);
    if (!set) return set.error();
    proposals.esp = std::move(*set);
  }
  return proposals;
}

std::string IKEProposals::ikeText() const { return commaSeparated(ike); }
std::string IKEProposals::espText() const { return commaSeparated(esp); }

}  // namespace helper
