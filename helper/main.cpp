// vpnctl-helper: root's side of vpnctl. The tool starts it with one end of a socket pair as standard input; it answers
// on it, keeps one link, and ends when the socket closes, after the link is down. With --repair, which is for the
// machine's start, it only takes back what was left. It wires; everything else is a library.

#include <systemd/sd-event.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <functional>
#include <set>
#include <string>
#include <string_view>

#include "helper/HelperProcess.h"
#include "helper/HelperService.h"
#include "helper/authorization/PolkitAuthority.h"
#include "helper/authorization/UserQuota.h"
#include "helper/common/Peer.h"
#include "helper/ike/IKEPath.h"
#include "helper/repair/Repair.h"
#include "linux/EventSource.h"
#include "linux/SystemdOwners.h"

namespace {

int fail(const vpnctl::Error &error) {
  std::fprintf(stderr, "vpnctl-helper: %s\n", error.message.c_str());
  return 1;
}

int repair() {
  if (const auto prepared = helper::prepareRepairProcess(); !prepared) return fail(prepared.error());
  auto log = helper::PPPLog::open();
  if (!log) return fail(log.error());
  helper::repairAbandoned([&log](const std::string &sentence) {
    log->write(sentence);
    std::fprintf(stderr, "vpnctl-helper: %s\n", sentence.c_str());
  });
  return 0;
}

int turnAway(const helper::UserQuota &quota, uid_t user, const vpnctl::Error &error, helper::PPPLog &log) {
  const auto complaint = quota.takeComplaint(user);
  // Silent only where somebody says it already, not where the places themselves are out of order.
  if (complaint || complaint.error().code != EDQUOT)
    log.write("User " + std::to_string(user) + " cannot " + error.message + ".");
  return 1;
}

}  // namespace

int main(int argc, char **argv) {
  if (::geteuid() != 0) {
    std::fprintf(stderr, "vpnctl-helper: must be run by root; vpnctl starts it\n");
    return 1;
  }
  if (argc == 2 && std::string_view(argv[1]) == "--repair") return repair();
  auto socket = helper::prepareHelperProcess();
  if (!socket) return fail(socket.error());
  auto log = helper::PPPLog::open();
  if (!log) return 1;
  const auto user = helper::Peer::userOf(socket->get());
  if (!user) return 1;
  const helper::UserQuota quota;
  const auto place = quota.take(*user);
  if (!place) return turnAway(quota, *user, place.error(), *log);

  linux::EventLoop loop;
  if (sd_event_default(linux::Out(loop)) < 0) return 1;
  vpnctl::PosixFileSystem fileSystem;
  helper::PreferencesStore preferences(helper::PreferencesStore::kPath, fileSystem, *log);
  // Who the access list of an item calls the IKE daemon.
  helper::Keychain keychain(helper::Keychain::kFolder, fileSystem, *log, {{"/usr/sbin/racoon", {helper::ikePath()}}});
  std::set<std::string> serversNotTold;
  helper::PolkitAuthority polkit(loop.get());
  helper::HelperService service(
      loop.get(), preferences, keychain,
      helper::plannedLinks(*log, serversNotTold, helper::vpnLinks(loop.get(), keychain, *log)), {polkit}, *log);
  std::function<void()> end = [&service] { service.end(); };
  vpnctl::Status status = helper::endOnSignals(loop.get(), end);
  const auto say = [&log](const std::string &sentence) { log->write(sentence); };
  // Before the first answer: what a dead helper left behind could be in the way of everything that follows.
  linux::endLoopOnException(loop.get(), [&] { serversNotTold = helper::repairAbandoned(say); });
  if (status) status = service.serve(std::move(*socket));
  if (status) return helper::runLoop(loop.get(), *log);
  log->write("The helper cannot serve: " + status.error().message);
  return 1;
}
