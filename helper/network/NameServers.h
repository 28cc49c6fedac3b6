// Making the name servers that the server named known to this machine, as the link sees it. ResolverConfiguration is
// the real one.
//
// Thread rule: the thread of the event loop.

#pragma once

#include <netinet/in.h>

#include <functional>
#include <string>
#include <vector>

namespace helper {

class NameServers {
 public:
  // SENTENCE tells the user what did not go as it should; empty if nothing is to be told.
  using Done = std::function<void(const std::string &sentence)>;

  virtual ~NameServers() = default;
  // SERVERS answer for everything if PRIMARY; otherwise only systemd-resolved, which can keep them apart by interface,
  // gets them at all. DONE is called once from the loop, within half a minute whatever others do, and never after
  // this is destroyed. What is to be taken back stands in the journal. A call before the last one is done waits for
  // that and takes its place: only the newest DONE is called, within a minute.
  virtual void apply(const std::string &interface, const std::vector<in_addr> &servers, bool primary, Done done) = 0;
};

}  // namespace helper
