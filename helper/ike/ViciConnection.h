// A connection to an IKE daemon's control socket, on the event loop: requests one after another, each with a deadline,
// and the events that come in between.
//
// Usual sequence: connect() gives the socket; construct; listen() for events, request(). When the stream ends, or
// makes no sense, or a request is not answered in time, ended is told once; no reply is called after that.
//
// Thread rule: the thread of the event loop. A handler may destroy the connection. Nothing blocks.

#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <string>

#include "foundation/FileDescriptor.h"
#include "foundation/Result.h"
#include "helper/ike/ViciMessage.h"
#include "linux/EventSource.h"

namespace helper {

class ViciConnection {
 public:
  // The answer; an error when the daemon does not know the command or event, or says that it did not succeed.
  using Reply = std::function<void(const foundation::Result<vici::Section> &)>;
  struct Handlers {
    std::function<void(const std::string &name, const vici::Section &event)> event;
    // REASON is a sentence part.
    std::function<void(const std::string &reason)> ended;
  };

  // Of the error of a command that the daemon does not have.
  static constexpr int kUnknownCommand = 1;

  // A socket connected to PATH, which does not block. EAGAIN: the daemon has no room for one more to wait; so this
  // waits for up to PATIENCE.
  static foundation::Result<foundation::FileDescriptor> connect(
      const std::string &path, std::chrono::milliseconds patience = std::chrono::milliseconds(0));

  ViciConnection(sd_event *event, foundation::FileDescriptor socket, Handlers handlers);
  ViciConnection(const ViciConnection &) = delete;
  ViciConnection &operator=(const ViciConnection &) = delete;

  int socket() const { return socket_.get(); }
  // From the reply on, events of this NAME come.
  void listen(const std::string &name, std::chrono::milliseconds deadline, Reply reply);
  void request(const std::string &command, vici::Section message, std::chrono::milliseconds deadline, Reply reply);

 private:
  struct Pending {
    foundation::Secret bytes;
    std::string name;
    std::chrono::milliseconds deadline;
    Reply reply;
  };

  void enqueue(const vici::Packet &packet, std::chrono::milliseconds deadline, Reply reply);
  void sendNext();
  void flush();
  void readPackets();
  void handle(const vici::Packet &packet);
  void end(std::string reason);

  sd_event *event_;
  foundation::FileDescriptor socket_;
  Handlers handlers_;
  std::deque<Pending> queue_;  // the first is under way
  std::size_t sent_ = 0;       // bytes of the first
  bool underWay_ = false;
  vici::PacketReader reader_;
  linux::EventSource io_;
  linux::EventSource deadline_;
  linux::EventSource nextTurn_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);  // held over handlers that may destroy us
};

// What a response says: itself, or the error of one that tells of no success.
foundation::Result<vici::Section> viciOutcome(const std::string &command, const vici::Packet &response);
// Whether ERROR is that: the daemon has answered, and says that the command did not succeed.
bool viciRefused(const foundation::Error &error);

}  // namespace helper
