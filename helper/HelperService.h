// The helper's end of the wire: answers the tool's calls with the stores and one link, and ends when the tool goes.
//
// Usual sequence: construct, serve(), run the event loop; it exits when the service has ended. Thread rule: the thread
// of the event loop.

#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "foundation/FileDescriptor.h"
#include "foundation/RateLimit.h"
#include "foundation/Result.h"
#include "helper/authorization/Authority.h"
#include "helper/common/PPPLog.h"
#include "helper/common/Peer.h"
#include "helper/link/LinkFactory.h"
#include "helper/store/Keychain.h"
#include "helper/store/PreferencesStore.h"
#include "linux/EventSource.h"
#include "linux/SystemJournal.h"
#include "linux/SystemdOwners.h"
#include "wire/Messages.h"

namespace helper {

class HelperService {
 public:
  // A link that stops takes up to a few seconds; what it has not done by then, its destructor does by force.
  static constexpr std::chrono::milliseconds kEndDeadline{10000};
  // Answers that wait for the tool to read, beyond what its socket holds. A tool waits for each answer before it asks
  // again; one that asks and asks without reading would have us keep all of them.
  static constexpr std::uint64_t kMaximumUnread = 16;

  // Calls of somebody who is not root: far more than a connection takes.
  static constexpr int kCallsAtOnce = 200;
  static constexpr int kCallsPerSecond = 20;

  // Lines of the PPP log for somebody who is not root, before he has a right and then: enough for a connection that is
  // debugged.
  static constexpr int kLinesOfStrangers = 10;
  static constexpr int kLinesAtOnce = 2000;
  static constexpr int kLinesPerSecond = 20;

  // Where administrators read who asked for what.
  using AuditTrail = std::function<void(const std::string &sentence, const linux::JournalFields &fields)>;
  // Who may have it although he is not root, and who is told.
  struct Users {
    Authority &authority;
    AuditTrail auditTrail = linux::tellJournal;
  };

  // Everything handed in outlives the service.
  HelperService(sd_event *event, PreferencesStore &preferences, Keychain &keychain, LinkFactory links, Users users,
                PPPLog &log, std::chrono::milliseconds endDeadline = kEndDeadline);
  HelperService(const HelperService &) = delete;
  HelperService &operator=(const HelperService &) = delete;

  // Answers calls that come in on SOCKET from now on.
  vpnctl::Status serve(vpnctl::FileDescriptor socket);

  // Takes the link down, if it is up, and then ends the event loop. May be called again.
  void end();

 private:
  template <int (HelperService::*method)(sd_bus_message *)>
  static int handle(sd_bus_message *message, void *service, sd_bus_error *error);
  // Reads the call, has METHOD answer it, and writes the reply.
  template <auto method>
  int answer(sd_bus_message *message);
  template <auto method>
  static constexpr sd_bus_vtable entry(const char *member);
  static const sd_bus_vtable kMethods[];

  // Answers later.
  int authorize(sd_bus_message *message);
  void authorized(const Authority::Answer &answer, bool willAskAgain);

  // An error says that the call is not what it should be; all else is a code in the reply.
  template <class Reply>
  using Result = vpnctl::Result<Reply>;
  Result<wire::Code> tellOfReadableSecrets(const wire::TellOfReadableSecrets &call);
  Result<wire::ReadPreferencesReply> readPreferences(const wire::Nothing &call);
  Result<wire::CommitPreferencesReply> commitPreferences(const wire::CommitPreferences &call);
  Result<wire::Code> applyPreferences(const wire::Nothing &call);
  Result<wire::AddKeychainItemReply> addKeychainItem(const wire::AddKeychainItem &call);
  Result<wire::FindKeychainItemsReply> findKeychainItems(const wire::FindKeychainItems &call);
  Result<wire::Code> deleteKeychainItem(const wire::DeleteKeychainItem &call);
  Result<wire::Code> startLink(const wire::StartLink &call);
  Result<wire::Code> stopLink(const wire::StopLink &call);
  Result<wire::LinkStatusReply> linkStatus(const wire::LinkStatus &call);
  int peerIsGone(sd_bus_message *message);
  // Sees every message before its method does; 1: no method shall.
  int guard(sd_bus_message *message);
  int cutOff(const char *why);

  std::int32_t start(const LinkRequest &request, bool linger);
  void tellAdministrators(const std::string &sentence, const std::string &server = {});
  void linkChanged(const LinkStatus &status);
  bool isLinkUp() const { return link_ && !link_->isDown(); }
  void exit();

  sd_event *event_;
  PreferencesStore &preferences_;
  Keychain &keychain_;
  LinkFactory links_;
  PPPLog &log_;
  Users users_;
  const std::chrono::milliseconds endDeadline_;
  uid_t user_ = 0;  // at the other end
  std::optional<Peer> peer_;
  bool authorized_ = false;
  linux::BusMessage question_;  // the call that waits for the authority
  vpnctl::RateLimit calls_{kCallsAtOnce, kCallsPerSecond};
  linux::Bus bus_;
  linux::EventSource exit_;
  linux::EventSource deadline_;
  std::string serviceID_;  // of link_
  bool linger_ = false;
  bool ending_ = false;
  // Last, so that it goes first: it still tells its end through what stands above.
  std::unique_ptr<Link> link_;
};

}  // namespace helper
