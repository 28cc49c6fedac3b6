#include "companions/doctor/SettingsCheck.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "companions/doctor/FindingList.h"
#include "helper/isakmp/Proposals.h"
#include "linux/FolderPaths.h"

namespace companions {

using helper::EngineSettings;

namespace {

// The file that concerns the server; all there are where it is not known.
std::vector<std::string> servers(const Situation &situation) {
  if (const std::string server = situation.server(); !server.empty()) return {server};
  std::vector<std::string> found{""};
  std::error_code ignored;
  for (const std::filesystem::path path : linux::pathsIn(situation.machine.settings + "/engine.d", ignored))
    if (path.extension() == ".conf") found.push_back(path.stem());
  std::ranges::sort(found);
  return found;
}

bool isHidden(const std::string &path) { return ::access(path.c_str(), R_OK) != 0 && errno == EACCES; }

template <class Parse>
void lookAtProposals(const std::vector<std::string> &texts, const std::string &name, Parse parse, FindingList &found) {
  std::size_t bad = 0;
  for (const std::string &text : texts) {
    const auto parsed = parse({text});
    if (parsed) continue;
    ++bad;
    found.hinders("settings.proposals", name + ": " + parsed.error().message + ".",
                  "This proposal is not made to the server.", "vpnctl-engine.conf(5) names what there is");
  }
  if (texts.empty()) return;
  if (bad == texts.size())
    found.prevents("settings.proposals", "No proposal in " + name + " can be used.",
                   "There is nothing that could be agreed upon with the server.",
                   "take " + name + " out, and the defaults hold");
  else if (const auto all = parse(texts); bad == 0 && !all)
    found.prevents("settings.proposals", name + ": " + all.error().message + ".",
                   "The proposals cannot be made together.", "vpnctl-engine.conf(5) says what goes together");
}

class Looking {
 public:
  Looking(const Situation &situation, FindingList &found) : situation_(situation), found_(found) {}

  void look() {
    for (const std::string &server : servers(situation_)) lookAt(server);
    found_.fine("settings.file", "The engine's settings can be used.");
    found_.fine("settings.proposals", "The proposals for IPSec can be made.");
  }

 private:
  void lookAt(const std::string &server) {
    const Machine &machine = situation_.machine;
    lookForHidden(machine.settings + "/engine.conf");
    lookForHidden(machine.settings + "/engine.d" + (server.empty() ? "" : "/" + server + ".conf"));
    const auto [settings, complaints] = EngineSettings::readFor(server, machine.settings, machine.administrator);
    for (const std::string &complaint : complaints)
      if (!isAboutHidden(complaint) && isNew(complaint))
        found_.hinders("settings.file", complaint, "The setting does not have the effect that was wanted.",
                       "vpnctl-engine.conf(5) says what can stand there");
    if (!situation_.concerns("l2tp")) return;
    FindingList proposals;
    lookAtProposals(settings.ike.proposals, "ike.proposals", helper::isakmp::parseIKEProposals, proposals);
    lookAtProposals(settings.ike.espProposals, "ike.esp_proposals", helper::isakmp::parseESPProposals, proposals);
    for (const Finding &finding : proposals.take())
      if (isNew(finding.what)) found_.add(finding.grade, finding.name, finding.what, finding.why, finding.remedy);
  }

  void lookForHidden(const std::string &path) {
    if (!isHidden(path) || !isNew(path)) return;
    hidden_.push_back(path);
    found_.unseen("settings.file", "This user may not read " + path + ".", "What is in it cannot be looked at.",
                  "run vpnctl-doctor as root");
  }

  bool isAboutHidden(const std::string &complaint) const {
    return std::ranges::any_of(
        hidden_, [&](const std::string &path) { return complaint.starts_with(path + ":"); });
  }

  // The general settings are read for each server.
  bool isNew(const std::string &text) {
    const bool is = std::ranges::find(told_, text) == told_.end();
    told_.push_back(text);
    return is;
  }

  const Situation &situation_;
  FindingList &found_;
  std::vector<std::string> told_;
  std::vector<std::string> hidden_;
};

}  // namespace

Findings SettingsCheck::look(const Situation &situation) {
  FindingList found;
  Looking(situation, found).look();
  return found.take();
}

}  // namespace companions
