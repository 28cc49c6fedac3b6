// The child vpnctl-ike, as the helper sees it: starts it, says orders, hears reports.
//
// Usual sequence: start(), order(IKEStart) with the server's socket, then whatever is reported. Destroying one whose
// process still runs lets it take its leave of the server, and kills it when that takes longer than half a second.
//
// Thread rule: the thread of the event loop. Handlers are called from the loop only, and may destroy this object.
// Nothing blocks but start(), until the program runs, and the destructor.

#pragma once

#include <systemd/sd-event.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "foundation/FileDescriptor.h"
#include "helper/common/Peer.h"
#include "helper/ike/IKEProtocol.h"
#include "linux/ChildProcess.h"
#include "linux/EventSource.h"

namespace helper {

// What an association needs of it; a seam.
class IKESpeaker {
 public:
  struct Handlers {
    std::function<void(const IKEReport &)> report;
    // It has ended, after its last word or before; or said what it may not (then the error says what), and is being
    // ended. Once, last.
    std::function<void(const vpnctl::Status &how)> ended;
  };

  virtual ~IKESpeaker() = default;
  virtual pid_t pid() const = 0;
  // The process that gets the shared secret.
  virtual vpnctl::Result<Peer> peer() const = 0;
  // SOCKET goes along with IKEStart, and stays the caller's, too.
  virtual vpnctl::Status order(const IKEOrder &order, int socket) = 0;
};

class IKEProcess : public IKESpeaker {
 public:
  static vpnctl::Result<std::unique_ptr<IKEProcess>> start(sd_event *event, const std::string &program,
                                                           Handlers handlers);
  IKEProcess(const IKEProcess &) = delete;
  IKEProcess &operator=(const IKEProcess &) = delete;
  ~IKEProcess() override;

  // From now on these are told instead.
  void setHandlers(Handlers handlers) { handlers_ = std::move(handlers); }
  pid_t pid() const override { return process_->pid(); }
  vpnctl::Result<Peer> peer() const override;
  vpnctl::Status order(const IKEOrder &order, int socket) override;

 private:
  IKEProcess(Handlers handlers, vpnctl::FileDescriptor socket)
      : handlers_(std::move(handlers)), socket_(std::move(socket)) {}
  // False when there is nothing more to read for now.
  bool recordArrived();
  void end(const vpnctl::Status &how);

  // Expires with this object: who has called a handler looks here before going on.
  std::shared_ptr<const bool> alive_ = std::make_shared<const bool>(true);
  Handlers handlers_;
  vpnctl::FileDescriptor socket_;
  std::optional<linux::ChildProcess> process_;
  linux::EventSource reading_;
};

}  // namespace helper
