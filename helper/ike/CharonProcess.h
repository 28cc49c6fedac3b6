// The charon process: the system's own if one runs, otherwise one that we start, with the system's own configuration,
// and end again. Never a restart, never a change to how it is configured.
//
// Several helpers may use one charon that one of them started. Its users hold a file locked (shared); whoever finds at
// its end that nobody else holds it ends charon. Each user writes it into its own journal, so it does not matter who
// dies first.
//
// Usual sequence: start(), then ready or failed, once; stop() at any time ends with stopped, once. After that nothing
// is told. No handler is called from within start() or stop().
//
// Thread rule: the thread of the event loop. Nothing but the destructor and endDaemon() blocks.

#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "foundation/FileDescriptor.h"
#include "helper/journal/IPSecJournal.h"
#include "linux/ChildProcess.h"
#include "linux/EventSource.h"
#include "linux/Process.h"

namespace helper {

class CharonProcess {
 public:
  struct Places {
    // Where a charon may listen, and what to start, the first that is there.
    std::vector<std::string> controlSockets{"/run/charon.vici", "/var/run/charon.vici", "/run/strongswan/charon.vici",
                                            "/run/ipsec/charon.vici"};
    std::vector<std::string> programs{"/usr/lib/ipsec/charon",
                                      "/usr/libexec/ipsec/charon",
                                      "/usr/lib/strongswan/charon",
                                      "/usr/libexec/strongswan/charon",
                                      "/usr/sbin/charon-systemd",
                                      "/usr/lib/ipsec/charon-systemd",
                                      "/usr/libexec/strongswan/charon-systemd"};
    std::string useFile = "/run/vpnctl/charon";
    std::vector<std::uint16_t> ports{500, 4500};
  };
  struct Deadlines {
    std::chrono::milliseconds start{10000};  // until it answers on its control socket
    std::chrono::milliseconds stop{3000};    // then it is killed
    std::chrono::milliseconds retry{50};     // while another helper starts or ends it
    std::chrono::milliseconds destruction{400};
  };
  struct Handlers {
    std::function<void(const std::string &controlSocket)> ready;
    std::function<void(const std::string &sentence)> failed;
    std::function<void()> stopped;
  };

  CharonProcess(sd_event *event, IPSecJournal &journal, Places places, const Deadlines &deadlines, Handlers handlers);
  CharonProcess(const CharonProcess &) = delete;
  CharonProcess &operator=(const CharonProcess &) = delete;
  ~CharonProcess();

  void start();
  void stop();

  // Ends the charon of a journal, unless somebody else uses it. Waits for its end, at most twice GRACE. The error, a
  // sentence part, says why it may still run with nobody else to end it.
  static foundation::Status endDaemon(const StartedDaemon &daemon, std::chrono::milliseconds grace,
                                      const Places &places);

 private:
  void attempt();
  void tryAgain();
  bool found();
  foundation::Status join(int socket);
  void launch();
  foundation::Status prepare();
  void withdraw();
  bool answers() const;
  std::optional<std::string> obstacle() const;
  void watchSockets();
  void lookForSocket();
  void childEnded(const linux::ChildProcess::End &end);
  void use(const std::string &controlSocket);
  void fail(std::string sentence);
  void insist();
  void finishStopping();

  sd_event *event_;
  IPSecJournal &journal_;
  Places places_;
  Deadlines deadlines_;
  Handlers handlers_;
  std::optional<StartedDaemon> daemon_;  // one that a helper started
  linux::Process process_;               // held from the beginning, so that its end does not hang on a descriptor
  foundation::FileDescriptor useLock_;
  bool last_ = false;    // of its users, at our end
  bool ending_ = false;  // by us
  bool settled_ = true;  // it has ended, or is somebody else's to end
  std::optional<linux::ChildProcess> child_;
  foundation::FileDescriptor inotify_;
  linux::EventSource created_;
  linux::EventSource retry_;
  linux::EventSource deadline_;
  linux::EventSource nextTurn_;
};

}  // namespace helper
