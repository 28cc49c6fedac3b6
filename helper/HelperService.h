// The helper's end of the wire: answers the tool's calls with the stores and one link, and ends when the tool goes.
//
// Usual sequence: construct, serve(), run the event loop; it exits when the service has ended. Thread rule: the thread
// of the event loop.

#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "foundation/FileDescriptor.h"
#include "foundation/Result.h"
#include "helper/common/PPPLog.h"
#include "helper/link/LinkFactory.h"
#include "helper/store/Keychain.h"
#include "helper/store/PreferencesStore.h"

namespace helper {

class HelperService {
 public:
  // A link that stops takes up to a few seconds; what it has not done by then, its destructor does by force.
  static constexpr std::chrono::milliseconds kEndDeadline{10000};
  // Answers that wait for the tool to read, beyond what its socket holds. A tool waits for each answer before it asks
  // again; one that asks and asks without reading would have us keep all of them.
  static constexpr std::uint64_t kMaximumUnread = 16;

  // Everything handed in outlives the service.
  HelperService(sd_event *event, PreferencesStore &preferences, Keychain &keychain, LinkFactory links, PPPLog &log,
                std::chrono::milliseconds endDeadline = kEndDeadline);
  HelperService(const HelperService &) = delete;
  HelperService &operator=(const HelperService &) = delete;
  ~HelperService();

  // Answers calls that come in on SOCKET from now on.
  foundation::Status serve(foundation::FileDescriptor socket);

  // Takes the link down, if it is up, and then ends the event loop. May be called again.
  void end();

 private:
  template <int (HelperService::*method)(sd_bus_message *)>
  static int handle(sd_bus_message *message, void *service, sd_bus_error *error);
  static const sd_bus_vtable kMethods[];

  int readPreferences(sd_bus_message *message);
  int commitPreferences(sd_bus_message *message);
  int applyPreferences(sd_bus_message *message);
  int addKeychainItem(sd_bus_message *message);
  int findKeychainItems(sd_bus_message *message);
  int deleteKeychainItem(sd_bus_message *message);
  int startLink(sd_bus_message *message);
  int stopLink(sd_bus_message *message);
  int linkStatus(sd_bus_message *message);
  int peerIsGone(sd_bus_message *message);
  int refuseDeafPeer(sd_bus_message *message);

  std::int32_t start(const std::string &serviceID, const foundation::Value &userOptions, bool linger);
  void linkChanged(const LinkStatus &status);
  bool isLinkUp() const { return link_ && !link_->isDown(); }
  void exit();

  sd_event *event_;
  PreferencesStore &preferences_;
  Keychain &keychain_;
  LinkFactory links_;
  PPPLog &log_;
  const std::chrono::milliseconds endDeadline_;
  sd_bus *bus_ = nullptr;
  sd_event_source *deadline_ = nullptr;
  sd_event_source *exit_ = nullptr;
  std::string serviceID_;  // of link_
  bool linger_ = false;
  bool ending_ = false;
  // Last, so that it goes first: it still tells its end through what stands above.
  std::unique_ptr<Link> link_;
};

}  // namespace helper
