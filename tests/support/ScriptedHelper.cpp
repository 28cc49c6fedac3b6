// vpnctl-helper as tests start it: the real process setup, stores and service, with scripted links, and with the stores
// in the folder that the program lies in (a test copies it to a folder of its own), where the authority's verdict lies,
// too.

#include <systemd/sd-event.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "helper/HelperProcess.h"
#include "helper/HelperService.h"
#include "linux/SystemdOwners.h"
#include "tests/support/ScriptedAuthority.h"
#include "tests/support/ScriptedLink.h"

namespace {

using Verdict = helper::Authority::Verdict;

// The file "verdict" has its number; without one everybody is welcome.
Verdict verdictIn(const std::string &folder) {
  int number = static_cast<int>(Verdict::granted);
  std::ifstream(folder + "/verdict") >> number;
  return static_cast<Verdict>(number);
}

}  // namespace

int main() {
  auto socket = helper::prepareHelperProcess();
  if (!socket) return 1;
  const std::string folder = std::filesystem::read_symlink("/proc/self/exe").parent_path().string();
  auto log = helper::PPPLog::open(folder + "/ppp.log");
  linux::EventLoop loop;
  if (!log || sd_event_default(linux::Out(loop)) < 0) return 1;
  vpnctl::PosixFileSystem fileSystem;
  helper::PreferencesStore preferences(folder + "/etc/preferences.plist", fileSystem, *log);
  helper::Keychain keychain(folder + "/keychain", fileSystem, *log);
  helper::testing::ScriptedAuthority authority(loop.get(), verdictIn(folder));
  helper::HelperService service(loop.get(), preferences, keychain, helper::testing::scriptedLinks(loop.get()),
                                {authority, [](const auto &, const auto &) {}}, *log);
  std::function<void()> end = [&service] { service.end(); };
  if (!helper::endOnSignals(loop.get(), end) || !service.serve(std::move(*socket))) return 1;
  return helper::runLoop(loop.get(), *log);
}
