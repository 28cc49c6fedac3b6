#include "helper/HelperService.h"

#include <cerrno>
#include <optional>
#include <system_error>
#include <utility>

#include "foundation/UUID.h"
#include "helper/common/Peer.h"
#include "helper/common/SecretUse.h"
#include "wire/HelperInterface.h"
#include "wire/StatusCodes.h"

namespace helper {

using vpnctl::errnoError;
using vpnctl::FileDescriptor;
using vpnctl::Result;
using vpnctl::Secret;
using vpnctl::Status;
using vpnctl::Value;

namespace {

// The D-Bus error of a call that is not what it should be.
int malformed(sd_bus_message *message, const vpnctl::Error &why) {
  return sd_bus_reply_method_errorf(message, SD_BUS_ERROR_INVALID_ARGS, "The arguments cannot be used: %s",
                                    why.message.c_str());
}

int replyWithCode(sd_bus_message *message, std::int32_t code) {
  linux::BusMessage reply;
  int result = sd_bus_message_new_method_return(message, linux::Out(reply));
  if (result >= 0) result = wire::append(reply.get(), wire::Code{code});
  return result < 0 ? result : sd_bus_send(nullptr, reply.get(), nullptr);
}

std::int32_t codeOf(Authority::Verdict verdict) {
  switch (verdict) {
    case Authority::Verdict::granted:
      return wire::errSecSuccess;
    case Authority::Verdict::denied:
      return wire::errAuthorizationDenied;
    case Authority::Verdict::dismissed:
      return wire::errAuthorizationCanceled;
    case Authority::Verdict::nobodyToAsk:
    case Authority::Verdict::interactionWanted:
      return wire::errAuthorizationInteractionNotAllowed;
    case Authority::Verdict::unavailable:
      break;
  }
  return wire::errAuthorizationInternal;
}

wire::LinkStatusReply replyOf(const LinkStatus &status) {
  return {status.status, status.error, wire::bytesOf(status.extendedStatus)};
}

// What HelperService::startLink and its like take and give.
template <class>
struct Method;
template <class ReplyType, class CallType>
struct Method<Result<ReplyType> (HelperService::*)(const CallType &)> {
  using Reply = ReplyType;
  using Call = CallType;
};

}  // namespace

template <int (HelperService::*method)(sd_bus_message *)>
int HelperService::handle(sd_bus_message *message, void *service, sd_bus_error *) {
  auto &self = *static_cast<HelperService *>(service);
  int result = -ENOTRECOVERABLE;  // what the caller gets when it ends in an exception
  linux::endLoopOnException(self.event_, [&] { result = (self.*method)(message); });
  return result;
}

template <auto method>
int HelperService::answer(sd_bus_message *message) {
  if (!authorized_)
    return sd_bus_reply_method_errorf(message, SD_BUS_ERROR_ACCESS_DENIED, "Nothing is answered before Authorize.");
  typename Method<decltype(method)>::Call call;
  int result = wire::read(message, &call);
  if (result < 0) return malformed(message, errnoError(-result, sd_bus_message_get_member(message)));
  const auto answered = (this->*method)(call);
  if (!answered) return malformed(message, answered.error());
  linux::BusMessage reply;
  result = sd_bus_message_new_method_return(message, linux::Out(reply));
  if (result >= 0) result = wire::append(reply.get(), *answered);
  return result < 0 ? result : sd_bus_send(nullptr, reply.get(), nullptr);
}

template <auto method>
constexpr sd_bus_vtable HelperService::entry(const char *member) {
  using Types = Method<decltype(method)>;
  return SD_BUS_METHOD(member, Types::Call::kSignature, Types::Reply::kSignature,
                       handle<&HelperService::answer<method>>, SD_BUS_VTABLE_UNPRIVILEGED);
}

const sd_bus_vtable HelperService::kMethods[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD(wire::kAuthorize, wire::Authorize::kSignature, wire::Code::kSignature,
                  handle<&HelperService::authorize>, SD_BUS_VTABLE_UNPRIVILEGED),
    entry<&HelperService::tellOfReadableSecrets>(wire::kTellOfReadableSecrets),
    entry<&HelperService::readPreferences>(wire::kReadPreferences),
    entry<&HelperService::commitPreferences>(wire::kCommitPreferences),
    entry<&HelperService::applyPreferences>(wire::kApplyPreferences),
    entry<&HelperService::addKeychainItem>(wire::kAddKeychainItem),
    entry<&HelperService::findKeychainItems>(wire::kFindKeychainItems),
    entry<&HelperService::deleteKeychainItem>(wire::kDeleteKeychainItem),
    entry<&HelperService::startLink>(wire::kStartLink),
    entry<&HelperService::stopLink>(wire::kStopLink),
    entry<&HelperService::linkStatus>(wire::kLinkStatus),
    SD_BUS_SIGNAL(wire::kLinkStatusChanged, wire::LinkStatusChanged::kSignature, 0),
    SD_BUS_VTABLE_END};

HelperService::HelperService(sd_event *event, PreferencesStore &preferences, Keychain &keychain, LinkFactory links,
                             Users users, PPPLog &log, std::chrono::milliseconds endDeadline)
    : event_(event),
      preferences_(preferences),
      keychain_(keychain),
      links_(std::move(links)),
      log_(log),
      users_(std::move(users)),
      endDeadline_(endDeadline) {}

Status HelperService::serve(FileDescriptor socket) {
  const auto user = Peer::userOf(socket.get());
  if (!user) return user.error();
  user_ = *user;
  authorized_ = user_ == 0;
  if (!authorized_) log_.limit({kLinesOfStrangers, 1});
  // Who asks must be there to be asked about, and must not become somebody else meanwhile.
  if (auto peer = Peer::ofSocket(socket.get()))
    peer_.emplace(std::move(*peer));
  else if (!authorized_)
    return peer.error();
  sd_id128_t identifier = {};
  int result = sd_id128_randomize(&identifier);
  if (result >= 0) result = sd_bus_new(linux::Out(bus_));
  if (result >= 0) result = sd_bus_set_description(bus_.get(), "tool");
  if (result >= 0) {
    const int descriptor = socket.release();  // the bus closes it from here on
    result = sd_bus_set_fd(bus_.get(), descriptor, descriptor);
  }
  if (result >= 0) result = sd_bus_set_server(bus_.get(), 1, identifier);
  if (result >= 0) result = sd_bus_negotiate_fds(bus_.get(), 0);  // nothing here takes any
  if (result >= 0)
    result = sd_bus_add_object_vtable(bus_.get(), nullptr, wire::kObjectPath, wire::kInterface, kMethods, this);
  if (result >= 0) {
    result =
        sd_bus_match_signal(bus_.get(), nullptr, nullptr, "/org/freedesktop/DBus/Local", "org.freedesktop.DBus.Local",
                            "Disconnected", handle<&HelperService::peerIsGone>, this);
  }
  if (result >= 0) result = sd_bus_add_filter(bus_.get(), nullptr, handle<&HelperService::guard>, this);
  if (result >= 0) result = sd_bus_start(bus_.get());
  if (result >= 0) result = sd_bus_attach_event(bus_.get(), event_, SD_EVENT_PRIORITY_NORMAL);
  if (result < 0) return errnoError(-result, "serve the tool");
  // A bus that is attached flushes when the loop exits, and waits for a peer that does not read for as long as it
  // takes. So it goes first: what the socket could hold is there already.
  try {
    exit_ = linux::EventSource::atExit(
        event_, [this] { sd_bus_detach_event(bus_.get()); });
  } catch (const std::system_error &error) {
    return errnoError(error.code().value(), "serve the tool");
  }
  return {};
}

// ---- Authorization

int HelperService::authorize(sd_bus_message *message) {
  wire::Authorize call;
  if (const int result = wire::read(message, &call); result < 0)
    return malformed(message, errnoError(-result, wire::kAuthorize));
  if (authorized_) return replyWithCode(message, wire::errSecSuccess);
  if (question_) return replyWithCode(message, wire::errAuthorizationDenied);
  question_.reset(sd_bus_message_ref(message));
  const bool willAskAgain = (call.flags & wire::kWillAskAgain) != 0;
  users_.authority.ask(*peer_, (call.flags & wire::kInteractionAllowed) != 0,
                       [this, willAskAgain](const Authority::Answer &answer) { authorized(answer, willAskAgain); });
  return 1;
}

void HelperService::authorized(const Authority::Answer &answer, bool willAskAgain) {
  authorized_ = answer.verdict == Authority::Verdict::granted;
  if (authorized_) log_.limit({kLinesAtOnce, kLinesPerSecond});
  if (!willAskAgain || answer.verdict != Authority::Verdict::nobodyToAsk) {
    if (!authorized_) log_.write(answer.sentence);
    tellAdministrators(answer.sentence);
  }
  replyWithCode(question_.get(), codeOf(answer.verdict));
  question_.reset();
}

Result<wire::Code> HelperService::tellOfReadableSecrets(const wire::TellOfReadableSecrets &call) {
  log_.write("Everybody on this machine can read " + call.path + ", and it holds secrets: chmod 600 would keep them.");
  return wire::Code{};
}

// ---- Preferences

Result<wire::ReadPreferencesReply> HelperService::readPreferences(const wire::Nothing &) {
  const auto contents = preferences_.read();
  if (!contents) return wire::ReadPreferencesReply{contents.error().code, {}, {}};
  return wire::ReadPreferencesReply{wire::kSCStatusOK, contents->propertyList, contents->signature};
}

Result<wire::CommitPreferencesReply> HelperService::commitPreferences(const wire::CommitPreferences &call) {
  auto written = preferences_.commit(call.propertyList, call.signature);
  if (!written) return wire::CommitPreferencesReply{written.error().code, {}};
  return wire::CommitPreferencesReply{wire::kSCStatusOK, std::move(*written)};
}

// Nothing waits for a notification: a start reads the preferences as they are then.
Result<wire::Code> HelperService::applyPreferences(const wire::Nothing &) { return wire::Code{wire::kSCStatusOK}; }

// ---- Keychain

Result<wire::AddKeychainItemReply> HelperService::addKeychainItem(const wire::AddKeychainItem &call) {
  const auto name = call.attributes.find(kServiceAttribute);
  const Value service = name == call.attributes.end() ? Value() : preferences_.serviceNaming(name->second);
  std::optional<SecretUse> use;
  if (!service.isNull()) use = SecretUse::of(service, user_);
  auto item = keychain_.add(call.attributes, Secret(call.secret), {call.accessDescription, call.trustedPaths}, use);
  if (!item) return wire::AddKeychainItemReply{item.error().code, {}};
  return wire::AddKeychainItemReply{wire::errSecSuccess, std::move(*item)};
}

Result<wire::FindKeychainItemsReply> HelperService::findKeychainItems(const wire::FindKeychainItems &call) {
  auto items = keychain_.find(call.attributes);
  if (!items) return wire::FindKeychainItemsReply{items.error().code, {}};
  return wire::FindKeychainItemsReply{wire::errSecSuccess, std::move(*items)};
}

Result<wire::Code> HelperService::deleteKeychainItem(const wire::DeleteKeychainItem &call) {
  if (!vpnctl::isUUID(call.item)) return errnoError(EINVAL, "look for an item");
  const auto status = keychain_.remove(call.item);
  return wire::Code{status ? wire::errSecSuccess : status.error().code};
}

// ---- Link

Result<wire::Code> HelperService::startLink(const wire::StartLink &call) {
  const auto userOptions = wire::dictionaryFrom(call.userOptions);
  if (!userOptions) return userOptions.error();
  return wire::Code{start({call.serviceID, *userOptions, user_, peer_ ? peer_->pid() : 0}, call.linger)};
}

std::int32_t HelperService::start(const LinkRequest &request, bool linger) {
  if (ending_ || isLinkUp()) return wire::kSCStatusFailed;
  // Whoever is left with it could not end it.
  if (linger && user_ != 0) {
    log_.write("The connection cannot be started: only root may have one that outlives the program that asks for it.");
    return wire::kSCStatusAccessError;
  }
  const auto preferences = preferences_.readValueWith(request.serviceID);
  if (!preferences) return preferences.error().code;
  auto link = links_(*preferences, request, [this](const LinkStatus &status) { linkChanged(status); });
  if (!link) {
    log_.write("The connection cannot be started: " + link.error().message);
    return link.error().code == EINVAL ? wire::kSCStatusInvalidArgument : wire::kSCStatusConnectionNoService;
  }
  link_ = std::move(*link);
  serviceID_ = request.serviceID;
  linger_ = linger;
  const std::string server = LinkPlan::serverOf(*preferences, serviceID_);
  tellAdministrators("User " + std::to_string(user_) + " connects this machine to " + server + ".", server);
  link_->start();
  return wire::kSCStatusOK;
}

void HelperService::tellAdministrators(const std::string &sentence, const std::string &server) {
  linux::JournalFields fields{{"VPNCTL_USER", std::to_string(user_)}};
  if (peer_) fields.emplace_back("VPNCTL_PROCESS", std::to_string(peer_->pid()));
  if (!server.empty()) fields.emplace_back("VPNCTL_SERVER", server);
  users_.auditTrail(sentence, fields);
}

Result<wire::Code> HelperService::stopLink(const wire::StopLink &call) {
  if (isLinkUp() && call.serviceID == serviceID_) link_->stop();
  return wire::Code{wire::kSCStatusOK};
}

Result<wire::LinkStatusReply> HelperService::linkStatus(const wire::LinkStatus &call) {
  return replyOf(link_ && call.serviceID == serviceID_ ? link_->status() : LinkStatus());
}

void HelperService::linkChanged(const LinkStatus &status) {
  linux::BusMessage signal;
  int result = sd_bus_message_new_signal(bus_.get(), linux::Out(signal), wire::kObjectPath, wire::kInterface,
                                         wire::kLinkStatusChanged);
  if (result >= 0) result = wire::append(signal.get(), wire::LinkStatusChanged{serviceID_, replyOf(status)});
  if (result >= 0) sd_bus_send(bus_.get(), signal.get(), nullptr);
  // A signal that cannot be sent has nobody to hear it; the link ends all the same. Disconnected is a link's last word.
  if (ending_ && status.status == 0) exit();
}

// ---- The end

int HelperService::peerIsGone(sd_bus_message *) {
  if (linger_ && isLinkUp())
    ending_ = true;  // stays for the link, and goes when it does
  else
    end();
  return 0;
}

int HelperService::guard(sd_bus_message *) {
  std::uint64_t unread = 0;
  if (sd_bus_get_n_queued_write(bus_.get(), &unread) >= 0 && unread > kMaximumUnread)
    return cutOff("The program that asked for the connection does not read the answers; the connection ends.");
  const auto now =
      std::chrono::duration_cast<vpnctl::RateLimit::Instant>(std::chrono::steady_clock::now().time_since_epoch());
  if (user_ != 0 && !calls_.allows(now))
    return cutOff("The program that asked for the connection asks and asks; the connection ends.");
  return 0;
}

int HelperService::cutOff(const char *why) {
  log_.write(why);
  sd_bus_close(bus_.get());
  end();
  return 1;
}

void HelperService::end() {
  ending_ = true;
  if (!isLinkUp()) return exit();
  if (deadline_) return;
  try {
    deadline_ = linux::EventSource::timer(
        event_, endDeadline_, [this] { exit(); });
  } catch (const std::system_error &) {
    return exit();
  }
  link_->stop();
}

void HelperService::exit() { sd_event_exit(event_, 0); }

}  // namespace helper
