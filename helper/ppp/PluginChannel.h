// The helper's end of the socket to the plugin in our pppd: a named socket in the link's private folder, one
// connection, only from the pppd that we started.
//
// Usual sequence: listen(PATH); pppd starts with PATH as its option, accepts(PID) names it; messages arrive through the
// handler; giveChannel and givePassword answer. Thread rule: the thread of the event loop. Nothing blocks.

#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "foundation/FileDescriptor.h"
#include "foundation/Result.h"
#include "foundation/Secret.h"
#include "helper/common/Peer.h"
#include "helper/common/Tunnel.h"
#include "helper/ppp/PluginMessages.h"
#include "linux/EventSource.h"

namespace helper {

class PluginChannel {
 public:
  struct Handlers {
    std::function<void(const PluginMessage &)> message;
    // The connection ended, or broke (then the error says how). Nothing follows.
    std::function<void(const vpnctl::Status &)> closed;
  };

  PluginChannel(sd_event *event, Handlers handlers);
  PluginChannel(const PluginChannel &) = delete;
  PluginChannel &operator=(const PluginChannel &) = delete;
  ~PluginChannel();

  // Listens at PATH, which must not exist and is unlinked as soon as the plugin is connected.
  vpnctl::Status listen(const std::string &path);
  // Only process PID that runs PROGRAM is let in.
  void accepts(pid_t pid, std::string program);
  // For tests: a connection that is there already.
  void adopt(vpnctl::FileDescriptor connection);

  // The answer to PluginNeedsChannel; CHANNEL's descriptors are closed here.
  vpnctl::Status giveChannel(TunnelChannel channel);
  // The answer to PluginNeedsPassword; none when there is none to give. At most 255 bytes without a zero byte.
  vpnctl::Status givePassword(const std::optional<vpnctl::Secret> &password);
  // The process at the other end.
  const Peer *peer() const { return peer_ ? &*peer_ : nullptr; }
  // The line is gone: pppd ends as after a hang-up. What it says until then still arrives.
  void hangUp();
  // Reads what is there already; for when the plugin's process has ended.
  void drain();

 private:
  void connectionArrived();
  // False when there is nothing more to read for now.
  bool recordArrived();
  void close(const vpnctl::Status &reason);
  void stopListening();

  sd_event *event_;
  Handlers handlers_;
  std::string path_;
  pid_t expectedPID_ = -1;
  std::string expectedProgram_;
  vpnctl::FileDescriptor listener_;
  vpnctl::FileDescriptor connection_;
  std::optional<Peer> peer_;
  linux::EventSource listening_;
  linux::EventSource reading_;
};

}  // namespace helper
