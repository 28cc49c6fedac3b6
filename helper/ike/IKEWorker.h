// What runs in vpnctl-ike: an Initiator between the helper's socket and the server's. It forwards datagrams, keeps
// time, and hands on what has to be done by somebody with rights.
//
// Thread rule: the process's only thread. run() blocks until the end.

#pragma once

#include <netinet/in.h>

#include <memory>

#include "foundation/FileDescriptor.h"
#include "helper/ike/IKEProtocol.h"
#include "helper/isakmp/Initiator.h"

namespace helper {

class IKEWorker {
 public:
  // Waits for the helper's order to start. An error when something else comes, or nothing.
  static vpnctl::Result<std::unique_ptr<IKEWorker>> awaitStart(vpnctl::FileDescriptor helper);
  IKEWorker(const IKEWorker &) = delete;
  IKEWorker &operator=(const IKEWorker &) = delete;

  // Until the helper or the Initiator is at its end. Needs nothing but its two sockets and time.
  void run();

 private:
  // The kernel's chance.
  struct SystemRandomness : isakmp::Randomness {
    void fill(std::span<std::uint8_t> bytes) override;
  };

  IKEWorker(vpnctl::FileDescriptor helper, vpnctl::FileDescriptor server, IKEStart start);

  void hearHelper();
  void hearServer();
  void perform(const isakmp::Outputs &outputs);
  void send(const isakmp::Send &datagram);
  void report(const IKEReport &report);

  vpnctl::FileDescriptor helper_;
  vpnctl::FileDescriptor server_;
  in_addr address_;  // the server's
  SystemRandomness randomness_;
  isakmp::Initiator initiator_;
  bool ended_ = false;
};

}  // namespace helper
