// The name servers that the server named, made known to this machine through whoever /etc/resolv.conf belongs to:
// systemd-resolved, for the link's interface; the resolvconf program; or nobody, then in the file itself. Afterwards
// the file is watched: when another program changes it so that they are no longer asked, the user is told.
//
// Usual sequence: construct, apply(), destroy; what is to be taken back stands in the journal. Thread rule: the thread
// of the event loop. Only the file system blocks, and for a moment another link that changes the same file.

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
#include "linux/FileWatch.h"

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

  // With systemd-resolved, names below DOMAINS are asked of the servers also where these do not answer for everything;
  // otherwise a name without a dot is looked for there. TELL gets the sentence about a file that somebody else has
  // changed.
  ResolverConfiguration(sd_event *event, Journal &journal, Paths paths, std::vector<std::string> domains,
                        std::function<void(const std::string &sentence)> tell);
  ResolverConfiguration(const ResolverConfiguration &) = delete;
  ResolverConfiguration &operator=(const ResolverConfiguration &) = delete;
  ~ResolverConfiguration() override = default;

  void apply(const std::string &interface, const std::vector<in_addr> &servers, bool primary, Done done) override;

 private:
  // Whose /etc/resolv.conf is.
  enum class Owner {
    nobody,
    resolvedStub,     // every name goes through systemd-resolved
    resolvedUplinks,  // it only keeps the list, of all interfaces' servers in an order of its own
    resolvconf
  };
  // What is to be made known.
  struct Wish {
    std::string interface {};
    std::vector<in_addr> servers{};
    bool primary = false;
    Done done{};
    bool asksForTheSameAs(const Wish &other) const;
  };

  static Owner ownerOf(const Paths &paths);
  void begin(Wish wish);
  void makeKnown();
  void resolvedAnswered(const vpnctl::Status &status);
  void runResolvconf(const std::string &program);
  void resolvconfEnded(const std::string &program, const linux::ChildProcess::End &end);
  vpnctl::Status editFile();
  // Without FAILURE nothing is to be told.
  void finish(const vpnctl::Status &failure);
  void say(const std::string &sentence);
  void watch();
  void fileStirred();
  std::string takenOverSentence() const;

  sd_event *event_;
  Journal &journal_;
  const Paths paths_;
  const std::vector<std::string> domains_;
  const std::function<void(const std::string &)> tell_;
  Wish wish_;                  // being made known, or the last that was
  std::optional<Wish> later_;  // what has been asked for meanwhile
  bool busy_ = false;
  Owner owner_ = Owner::nobody;
  bool madeKnown_ = false;  // as wish_ says
  bool takenOver_ = false;  // the file is somebody else's by now, and stays so
  std::unique_ptr<ResolvedClient> resolved_;
  std::optional<linux::ChildProcess> resolvconf_;
  std::string recordKey_;  // empty: resolvconf has not been called
  linux::EventSource next_;
  std::unique_ptr<linux::FileWatch> watch_;
};

// BEFORE (the text of a resolv.conf) with SERVERS in place of the name servers it has, and DOMAINS before those in
// which it looks for a name; everything else stays.
std::string resolverFile(const std::string &before, const std::vector<in_addr> &servers,
                         const std::vector<std::string> &domains);

}  // namespace helper
