// The name servers that the server named, made known to this machine: to systemd-resolved for the link's interface,
// else to the resolvconf program, else in /etc/resolv.conf.

#pragma once

#include <netinet/in.h>
#include <systemd/sd-event.h>

#include <memory>
#include <string>
#include <vector>

#include "foundation/Result.h"
#include "helper/link/Journal.h"

struct sd_bus;

namespace helper {

class ResolverConfiguration {
 public:
  // Where things are; tests point elsewhere.
  struct Paths {
    std::string resolved = "/run/systemd/resolve/stub-resolv.conf";  // there while systemd-resolved runs
    std::vector<std::string> resolvconf = {"/usr/sbin/resolvconf", "/sbin/resolvconf"};
    std::string file = "/etc/resolv.conf";
  };

  ResolverConfiguration(sd_event *event, Journal &journal, Paths paths);
  ResolverConfiguration(const ResolverConfiguration &) = delete;
  ResolverConfiguration &operator=(const ResolverConfiguration &) = delete;
  ~ResolverConfiguration();

  // SERVERS answer for everything if PRIMARY; otherwise only systemd-resolved, which can keep them apart by interface,
  // gets them at all. What was done stands in the journal; what resolved is told goes with the interface.
  foundation::Status apply(const std::string &interface, const std::vector<in_addr> &servers, bool primary);

 private:
  foundation::Status tellResolved(const std::string &interface, const std::vector<in_addr> &servers, bool primary);
  foundation::Status runResolvconf(const std::string &program, const std::string &interface,
                                   const std::vector<in_addr> &servers);
  foundation::Status editFile(const std::vector<in_addr> &servers);

  sd_event *event_;
  Journal &journal_;
  Paths paths_;
  sd_bus *bus_ = nullptr;
};

// BEFORE (the text of a resolv.conf) with SERVERS in place of the name servers it has; everything else stays.
std::string resolverFile(const std::string &before, const std::vector<in_addr> &servers);

}  // namespace helper
