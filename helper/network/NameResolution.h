// From the text of a server's address to its IPv4 addresses: dotted numbers at once, a name by the system's resolver on
// a thread of its own, since that may block for long.
//
// Thread rule: the thread of the event loop; the handler is called there, never from within the constructor.
// Destroying it forgets the question (the thread ends by itself).

#pragma once

#include <netinet/in.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "foundation/Result.h"
#include "linux/EventSource.h"

namespace helper {

class NameResolution {
 public:
  using Addresses = std::vector<in_addr>;
  // At least one address and at most kMost, the best first. The error's message is a sentence for the PPP log, with the
  // remedy.
  using Handler = std::function<void(const vpnctl::Result<Addresses> &)>;
  // What asks the system, replaceable for tests: an error code of getaddrinfo, 0 when ADDRESSES is filled.
  using Resolver = std::function<int(const std::string &name, Addresses &addresses)>;

  static constexpr std::size_t kMost = 4;
  static constexpr std::chrono::milliseconds kDeadline{8000};

  NameResolution(sd_event *event, const std::string &text, Handler handler, Resolver resolver = systemResolver(),
                 std::chrono::milliseconds deadline = kDeadline);
  NameResolution(const NameResolution &) = delete;
  NameResolution &operator=(const NameResolution &) = delete;
  ~NameResolution();

  static Resolver systemResolver();

 private:
  struct Question;
  void answered();
  void answer(const vpnctl::Result<Addresses> &addresses);

  Handler handler_;
  std::string name_;
  std::shared_ptr<Question> question_;  // shared with the thread
  linux::EventSource answer_;
  linux::EventSource deadline_;
};

}  // namespace helper
