// The name servers that the server named, made known to this machine through whoever /etc/resolv.conf belongs to:
// systemd-resolved, for the link's interface; the resolvconf program; or nobody, then in the file itself.
//
// Usual sequence: construct, apply() once, destroy; what is to be taken back stands in the journal. Thread rule: the
// thread of the event loop. Only the file system blocks.

#pragma once

#include <netinet/in.h>
#include <systemd/sd-event.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "foundation/Result.h"
#include "helper/journal/Journal.h"
#include "helper/network/NameServers.h"
#include "helper/network/ResolvedClient.h"
#include "linux/ChildProcess.h"
#include "linux/EventSource.h"

namespace helper {

class ResolverConfiguration : public NameServers {
 public:
  // Where things are; tests point elsewhere.
  struct Paths {
    std::string file = "/etc/resolv.conf";
    std::string resolved = "/run/systemd/resolve";  // the folder of its two files
    std::string resolvedStub = "/usr/lib/systemd/resolv.conf";
    std::string bus = "unix:path=/run/dbus/system_bus_socket";
    std::vector<std::string> resolvconf = {"/usr/sbin/resolvconf", "/sbin/resolvconf"};
    std::string originals = Journal::kLastingBase;  // what the file held, also after a power failure
  };

  ResolverConfiguration(sd_event *event, Journal &journal, Paths paths);
  ResolverConfiguration(const ResolverConfiguration &) = delete;
  ResolverConfiguration &operator=(const ResolverConfiguration &) = delete;
  ~ResolverConfiguration() override = default;

  void apply(const std::string &interface, const std::vector<in_addr> &servers, bool primary, Done done) override;

 private:
  void begin();
  void resolvedAnswered(const foundation::Status &status, bool alsoFile);
  void runResolvconf(const std::string &program);
  void resolvconfEnded(const std::string &program, const linux::ChildProcess::End &end);
  foundation::Status editFile();
  // Without FAILURE nothing is to be told.
  void finish(const foundation::Status &failure);
  void say(const std::string &sentence);

  sd_event *event_;
  Journal &journal_;
  const Paths paths_;
  std::string interface_;
  std::vector<in_addr> servers_;
  bool primary_ = false;
  Done done_;
  std::unique_ptr<ResolvedClient> resolved_;
  std::optional<linux::ChildProcess> resolvconf_;
  linux::EventSource next_;
};

// BEFORE (the text of a resolv.conf) with SERVERS in place of the name servers it has; everything else stays.
std::string resolverFile(const std::string &before, const std::vector<in_addr> &servers);

}  // namespace helper
