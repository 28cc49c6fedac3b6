// An IKE daemon's control socket, played by a script: it answers what it is told to, keeps what it was asked, and says
// events when a test wants them.

#pragma once

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "foundation/FileDescriptor.h"
#include "helper/ike/ViciMessage.h"

namespace helper::testing {

class ViciServer {
 public:
  // What to do with a request: packets to send back, on the connection that it came on.
  using Answer = std::function<std::vector<vici::Packet>(const vici::Section &request)>;

  explicit ViciServer(std::string path);
  ViciServer(const ViciServer &) = delete;
  ViciServer &operator=(const ViciServer &) = delete;
  ~ViciServer();

  // May be changed at any time. A command without an answer is unknown; one whose answer is `silence` stays unanswered.
  void answer(const std::string &command, Answer answer);
  void answer(const std::string &command, vici::Section section);
  void stayOpen(const std::string &command);  // silence
  // To every connection that listens to it.
  void say(const std::string &event, const vici::Section &section);
  // On every connection, whatever it means.
  void sendBytes(const std::vector<std::uint8_t> &bytes);
  // Answers the oldest request that was left unanswered.
  void finish(const std::string &command, vici::Section section);
  void hangUp();

  // Everything that was asked so far, in order: commands, and "+NAME" for registrations.
  std::vector<std::string> asked() const;
  // Blocks until this has been asked.
  void waitFor(const std::string &command) const;
  // Readable when something has been asked since it was last read: for an event loop that waits for that.
  int heard() const { return heard_.get(); }
  // The newest request of this command; empty when there is none.
  vici::Section request(const std::string &command) const;

 private:
  struct Client {
    foundation::FileDescriptor socket;
    vici::PacketReader reader;
    std::vector<std::string> events;
    std::string open;  // the command that is not answered yet
  };

  void serve();
  void read(Client &client);
  void handle(Client &client, const vici::Packet &packet);
  static void send(const Client &client, const vici::Packet &packet);

  std::string path_;
  foundation::FileDescriptor listener_;
  foundation::FileDescriptor wake_;  // ends the thread
  foundation::FileDescriptor heard_;
  mutable std::mutex mutex_;
  std::map<std::string, Answer> answers_;
  std::vector<std::unique_ptr<Client>> clients_;
  std::vector<std::pair<std::string, vici::Section>> asked_;
  mutable std::condition_variable wasAsked_;
  std::thread thread_;
};

}  // namespace helper::testing
