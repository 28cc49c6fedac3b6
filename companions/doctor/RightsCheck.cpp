#include "companions/doctor/RightsCheck.h"

#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <system_error>

#include "companions/doctor/FindingList.h"
#include "foundation/FileDescriptor.h"
#include "helper/authorization/PolkitAuthority.h"
#include "helper/common/Peer.h"
#include "linux/EventSource.h"
#include "linux/SystemdOwners.h"

namespace companions {

using helper::Authority;
using helper::Peer;
using Verdict = Authority::Verdict;

namespace {

constexpr std::chrono::milliseconds kPatience{5000};
constexpr char kPolkit[] = "rights.polkit";

// proc(5), net/unix: the fourth word has this bit where somebody listens, the eighth is the path.
bool isListening(const std::string &proc, const std::string &path) {
  constexpr unsigned long kAccepts = 0x10000;
  std::ifstream lines(proc + "/net/unix");
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::array<std::string, 8> word;
    for (std::string &each : word) words >> each;
    if (word[7] == path && (std::strtoul(word[3].c_str(), nullptr, 16) & kAccepts) != 0) return true;
  }
  return false;
}

void lookAtSocket(const Machine &machine, FindingList &found) {
  if (!isListening(machine.proc, machine.helperSocket))
    found.prevents("rights.socket", "Nobody listens at " + machine.helperSocket + ".",
                   "systemd starts a helper there for users who are not root.",
                   "as root: systemctl enable --now vpnctl-helper.socket");
  found.fine("rights.socket", "systemd listens at " + machine.helperSocket + ".");
}

// Ourselves, as the helper would see the tool.
vpnctl::Result<Peer> ourselves() {
  std::array<int, 2> ends{};
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) < 0)
    return vpnctl::errnoError(errno, "make a pair of sockets");
  const vpnctl::FileDescriptor one(ends[0]);
  const vpnctl::FileDescriptor other(ends[1]);
  return Peer::ofSocket(one.get());
}

Authority::Answer unavailable(const std::string &why) {
  return {Verdict::unavailable, "Polkit cannot be asked: " + why + "."};
}

Authority::Answer askPolkit() {
  const auto peer = ourselves();
  if (!peer) return unavailable(peer.error().message);
  linux::EventLoop loop;
  if (::sd_event_new(linux::Out(loop)) < 0) return unavailable("there is no event loop");
  Authority::Answer answer = unavailable("it does not answer in time");
  helper::PolkitAuthority polkit(loop.get());
  polkit.ask(
      *peer, false,
      [&](const Authority::Answer &given) {
        answer = given;
        ::sd_event_exit(loop.get(), 0);
      });
  const auto timer = linux::EventSource::timer(loop.get(), kPatience, [&] { ::sd_event_exit(loop.get(), 0); });
  ::sd_event_loop(loop.get());
  return answer;
}

}  // namespace

Finding RightsCheck::findingOf(const Authority::Answer &answer) {
  constexpr char kWhy[] = "Whoever is not root needs polkit's leave for a connection.";
  switch (answer.verdict) {
    case Verdict::granted:
    case Verdict::interactionWanted:
      return {Finding::Grade::fine, kPolkit, answer.sentence, {}, {}};
    case Verdict::denied:
    case Verdict::dismissed:
    case Verdict::nobodyToAsk:
      return {Finding::Grade::prevents, kPolkit, answer.sentence, kWhy,
              "connect as root, or have a rule of polkit's allow " + std::string(helper::PolkitAuthority::kAction)};
    case Verdict::unavailable:
      break;
  }
  return {Finding::Grade::prevents, kPolkit, answer.sentence, kWhy, "as root: apt install polkitd; or connect as root"};
}

Findings RightsCheck::look(const Situation &situation) {
  FindingList found;
  if (situation.isRoot()) return found.take();
  const Machine &machine = situation.machine;
  lookAtSocket(machine, found);
  std::error_code ignored;
  if (!std::filesystem::exists(machine.policy, ignored)) {
    found.prevents("rights.policy", "Polkit has not been told of vpnctl: there is no " + machine.policy + ".",
                   "It refuses what it does not know.", "install vpnctl anew, or copy its policy there");
    return found.take();
  }
  found.fine("rights.policy", "Polkit has been told of vpnctl.");
  const Finding asked = findingOf(askPolkit());
  found.add(asked.grade, asked.name, asked.what, asked.why, asked.remedy);
  return found.take();
}

}  // namespace companions
