// What the helper does with secrets once a link wants them, without the link: secret-user FOLDER SERVICE
//
// Takes the service's secret out of the keychain below FOLDER, as the helper does, gives it to a plugin and to a
// process that speaks IKE, which are nobody, and lets go of everything. Then it says so on standard output, and ends
// with its standard input.

#include <sys/socket.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <string>
#include <utility>

#include "foundation/ProcessMemory.h"
#include "foundation/Secret.h"
#include "helper/ike/IKEProtocol.h"
#include "helper/ppp/PluginChannel.h"
#include "helper/store/Keychain.h"
#include "helper/store/PreferencesStore.h"
#include "linux/SystemdOwners.h"

namespace {

using vpnctl::FileDescriptor;

std::pair<FileDescriptor, FileDescriptor> socketPair(int type) {
  int pair[2] = {-1, -1};
  if (::socketpair(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, pair) < 0) return {};
  return {FileDescriptor(pair[0]), FileDescriptor(pair[1])};
}

bool use(sd_event *event, const std::string &folder, const std::string &service) {
  auto log = helper::PPPLog::open(folder + "/secret-user.log");
  if (!log) return false;
  vpnctl::PosixFileSystem fileSystem;
  helper::Keychain keychain(folder + "/keychain", fileSystem, *log);
  auto [plugin, pppd] = socketPair(SOCK_SEQPACKET);
  auto [ike, child] = socketPair(SOCK_SEQPACKET);
  const auto peer = helper::Peer::ofSocket(plugin.get());
  if (!peer) return false;
  const helper::PreferencesStore preferences(folder + "/etc/preferences.plist", fileSystem, *log);
  const auto use = helper::SecretUse::of(preferences.serviceNaming(service), ::geteuid());
  const auto secret = keychain.secretForService(service, use, *peer);
  if (!secret) return false;

  helper::PluginChannel channel(event, {[](const auto &) {}, [](const auto &) {}});
  channel.adopt(std::move(plugin));
  if (!channel.givePassword(*secret)) return false;

  const auto record = helper::encode(helper::IKEStart{{}, *secret});
  if (::send(ike.get(), record.data(), record.size(), MSG_NOSIGNAL) < 0) return false;
  return true;
}

}  // namespace

int main(int argc, char **argv) {
  vpnctl::protectProcessMemory();
  linux::EventLoop loop;
  if (sd_event_new(linux::Out(loop)) < 0) return 1;
  if (argc != 3 || !use(loop.get(), argv[1], argv[2])) return 1;
  vpnctl::wipeDeadStack();  // as after each turn of the helper's loop
  loop.reset();
  char byte = 0;
  return ::write(STDOUT_FILENO, &byte, 1) == 1 && ::read(STDIN_FILENO, &byte, 1) == 0 ? 0 : 1;
}
