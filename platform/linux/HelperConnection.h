// The tool's end of the wire: calls to the helper, and its signals.
//
// Usual sequence: connect(), ping(), makeCurrent(); calls; attach() to a run loop, observers are told. Calls block for
// a round trip, with a deadline; signals that arrive meanwhile are kept and told from the run loop, one after the
// other. Thread rule: one thread, except current().

#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/FileDescriptor.h"
#include "foundation/Result.h"
#include "foundation/Secret.h"
#include "foundation/Value.h"
#include "linux/ChildProcess.h"
#include "linux/SystemdOwners.h"
#include "platform/linux/HelperLauncher.h"
#include "wire/Messages.h"

namespace platform {

// The state of a link at one moment.
struct LinkSnapshot {
  std::int32_t status = 0;
  std::int32_t error = 0;
  vpnctl::Value extendedStatus;
};

class LinkObserver {
 public:
  virtual ~LinkObserver() = default;
  virtual const std::string &serviceID() const = 0;
  virtual void linkChanged(const LinkSnapshot &snapshot) = 0;
  virtual void helperIsGone() = 0;
};

class HelperConnection : public std::enable_shared_from_this<HelperConnection> {
 public:
  static vpnctl::Result<std::shared_ptr<HelperConnection>> connect(LaunchedHelper helper);
  HelperConnection(const HelperConnection &) = delete;
  HelperConnection &operator=(const HelperConnection &) = delete;
  ~HelperConnection();

  // The helper of the authorization that was granted last, while anybody holds it: what serves the calls that name no
  // authorization.
  static std::shared_ptr<HelperConnection> current();
  void makeCurrent();

  bool isOpen() const;
  // True when the helper answers, which it does only when it is ready. Waits longer than other calls: a new helper
  // first mends what a dead one has left.
  bool ping();

  // For whoever is not root, before anything else: an OSStatus code. Takes as long as a person takes to answer.
  // WILL_ASK_AGAIN: when nobody can be asked, that is no news yet.
  std::optional<std::int32_t> authorize(bool mayInteract, bool willAskAgain);

  // Whether it is told, nobody needs to know.
  void tellOfReadableSecrets(const std::string &path);

  // Each gives what the helper answered; none when there was no answer.
  std::optional<wire::ReadPreferencesReply> readPreferences();
  std::optional<wire::CommitPreferencesReply> commitPreferences(std::string_view propertyList,
                                                                std::string_view signature);
  std::optional<std::int32_t> applyPreferences();

  std::optional<wire::AddKeychainItemReply> addKeychainItem(const wire::Attributes &attributes,
                                                            const vpnctl::Secret &secret,
                                                            const std::string &accessDescription,
                                                            const std::vector<std::string> &trustedPaths);
  std::optional<wire::FindKeychainItemsReply> findKeychainItems(const wire::Attributes &attributes);
  std::optional<std::int32_t> deleteKeychainItem(const std::string &item);

  std::optional<std::int32_t> startLink(const std::string &serviceID, std::string_view userOptions, bool linger);
  // Posts it and returns at once.
  void stopLink(const std::string &serviceID, bool force);
  std::optional<LinkSnapshot> linkStatus(const std::string &serviceID);

  // Signals are told from EVENT's loop from now on. False when another loop tells them already.
  bool attach(sd_event *event);
  // OBSERVER is told until it is removed.
  void addObserver(LinkObserver *observer);
  void removeObserver(LinkObserver *observer);

 private:
  HelperConnection(std::string path, std::optional<linux::ChildProcess> process)
      : path_(std::move(path)), process_(std::move(process)) {}

  using Message = linux::BusMessage;
  static constexpr std::uint64_t kCallDeadline = 10'000'000;  // microseconds
  // A call with what it carries; none when that does not work.
  template <class Call>
  Message newCall(const char *member, const Call &contents);
  // Sends it and waits.
  template <class Reply, class Call>
  std::optional<Reply> call(const char *member, const Call &contents, std::uint64_t deadline = kCallDeadline);
  template <class Call>
  std::optional<std::int32_t> callForCode(const char *member, const Call &contents);
  int start(vpnctl::FileDescriptor socket);
  void changed(sd_bus_message *signal);
  void lost();
  void haveItRepaired();
  std::vector<LinkObserver *> observersOf(const std::string *serviceID) const;

  const std::string path_;
  std::optional<linux::ChildProcess> process_;
  linux::Bus bus_;
  std::vector<LinkObserver *> observers_;
};

}  // namespace platform
