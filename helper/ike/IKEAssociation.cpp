#include "helper/ike/IKEAssociation.h"

#include <arpa/inet.h>
#include <sys/random.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstdio>

#include "helper/common/IPv4Address.h"
#include "helper/ike/Charon.h"
#include "helper/ike/SocketPolicy.h"

namespace helper {

using foundation::Status;

namespace {

constexpr std::chrono::milliseconds kTakeBack{1000};
// Below it are the numbers that IKE daemons give away one after another, and those kept for people.
constexpr std::uint32_t kLowestReqid = 0x01000000;
constexpr char kNoIPSec[] = "the kernel has no IPSec: load its modules (modprobe -a esp4 xfrm_user)";

std::uint32_t randomNumber() {
  std::uint32_t number = 0;
  while (::getrandom(&number, sizeof number, 0) != sizeof number) {
  }
  return number;
}

Status flowOf(int socket, UDPFlow &flow) {
  sockaddr_in local{};
  sockaddr_in remote{};
  socklen_t size = sizeof local;
  if (::getsockname(socket, reinterpret_cast<sockaddr *>(&local), &size) < 0)
    return foundation::errnoError(errno, "ask for the socket's address");
  size = sizeof remote;
  if (::getpeername(socket, reinterpret_cast<sockaddr *>(&remote), &size) < 0)
    return foundation::errnoError(errno, "ask for the server's address");
  flow = {local.sin_addr, ntohs(local.sin_port), remote.sin_addr, ntohs(remote.sin_port)};
  return {};
}

}  // namespace

IKEAssociation::IKEAssociation(const IKEContext &context, std::string secretName, Parts parts, Handlers handlers)
    : context_(context), secretName_(std::move(secretName)), parts_(std::move(parts)), handlers_(std::move(handlers)) {}

IKEAssociation::~IKEAssociation() {
  nextTurn_.reset();
  const Status takenBack = daemon_ ? daemon_->closeNow() : Status();
  daemon_.reset();
  forget(takenBack);
}

void IKEAssociation::start(int socket) {
  if (started_ || stopping_) return;
  started_ = true;
  until_ = std::chrono::steady_clock::now() + context_.settings.deadline;
  // The guard has to stand before anybody can send anything.
  if (Status prepared = prepare(socket); !prepared) {
    nextTurn_ = linux::EventSource::soon(context_.event, [this, reason = prepared.error().message] {
      fail(DeviceCause::protocolError, "No IPSec association is possible: " + reason + ".");
    });
    return;
  }
  daemon_ = parts_.daemon(IKEDaemon::Handlers{
      .ready = [this] { daemonIsReady(); },
      .unusable = [this](const std::string &sentence) { fail(DeviceCause::protocolError, sentence); },
      .established = [this] { negotiated(); },
      .refused = [this](const IKERefusal &refusal) { refused(refusal); },
      .lost = [this](const std::string &sentence) { handlers_.lost(sentence); },
      .closed =
          [this](const Status &takenBack) {
            forget(takenBack);
            handlers_.stopped();
          }});
  daemon_->open();
}

Status IKEAssociation::prepare(int socket) {
  if (Status known = flowOf(socket, flow_); !known) return known;
  server_ = textOf(flow_.remote);
  auto table = parts_.table();
  if (!table) return foundation::Error{"IPSec", 0, kNoIPSec};
  table_ = std::move(*table);
  plan_.reqid = kLowestReqid + randomNumber() % (0x7fffffff - kLowestReqid);
  if (Status guarded = parts_.guard(socket, plan_.reqid); !guarded)
    return foundation::Error{"IPSec", guarded.error().code,
                             std::string(kNoIPSec) + " (" + guarded.error().message + ")"};
  std::array<char, 9> unique{};
  std::snprintf(unique.data(), unique.size(), "%08x", randomNumber());
  plan_.name = std::string("vpnctl-") + unique.data();
  plan_.local = flow_.local;
  plan_.localPort = flow_.localPort;
  plan_.remote = flow_.remote;
  plan_.remotePort = flow_.remotePort;
  plan_.remoteIdentity = context_.settings.remoteIdentity;
  return {};
}

void IKEAssociation::daemonIsReady() {
  const EngineSettings::IKE &settings = context_.settings;
  const IKEProposals broad = IKEProposals::broad();
  std::vector<std::string> lacking;
  plan_.proposals = knownProposals(
      settings.proposals.empty() ? broad.ike : settings.proposals,
      [this](const std::string &algorithm) { return daemon_->knows(algorithm); }, lacking);
  plan_.espProposals = settings.espProposals.empty() ? broad.esp : settings.espProposals;
  if (!lacking.empty())
    context_.log.write("The IKE daemon (" + daemon_->description() + ") lacks " + commaSeparated(lacking) +
                       "; what needs it is not offered to the server.");
  if (plan_.proposals.empty())
    return fail(DeviceCause::protocolError,
                "The IKE daemon (" + daemon_->description() +
                    ") has the algorithms for none of the IKE proposals; install its plugins (on Debian: apt install "
                    "libstrongswan-standard-plugins).");
  const auto peer = daemon_->peer();
  if (!peer) return fail(DeviceCause::protocolError, "The IKE daemon is gone: " + peer.error().message + ".");
  auto secret = context_.secrets.secretForService(secretName_, context_.secretUse, *peer);
  if (!secret)
    return fail(DeviceCause::noSharedSecret,
                "There is no shared secret for the connection: " + secret.error().message + ".");
  secret_ = std::move(*secret);
  LoadedConnection entry{daemon_->controlSocket(), plan_.name, plan_.reqid};
  if (const Status written = context_.journal.noteConnection(entry); !written)
    return fail(DeviceCause::protocolError, "The IPSec association cannot be begun: " + written.error().message + ".");
  noted_ = std::move(entry);
  negotiate();
}

void IKEAssociation::negotiate() {
  plan_.deadline = std::chrono::duration_cast<std::chrono::milliseconds>(until_ - std::chrono::steady_clock::now());
  if (plan_.deadline.count() <= 0)
    return fail(DeviceCause::noAnswer, "The IPSec association with " + server_ + " did not come up in time.");
  daemon_->negotiate(plan_, *secret_);
}

void IKEAssociation::negotiated() {
  secret_.reset();
  // What was negotiated is what counts, not what was asked for.
  if (const Status right = table_->protects(flow_, plan_.reqid); !right)
    return fail(DeviceCause::protocolError,
                "The IPSec association with " + server_ + " is of no use: " + right.error().message + ".");
  handlers_.up();
}

void IKEAssociation::refused(const IKERefusal &refusal) {
  const EngineSettings::IKE &settings = context_.settings;
  // Some servers choke on many proposals, with a refusal or in silence.
  const bool choked = refusal.stage == IKEStage::firstAnswer || refusal.stage == IKEStage::proposals
                          ? settings.proposals.empty()
                          : refusal.stage == IKEStage::association && !refusal.silent && settings.espProposals.empty();
  const IKEProposals few = IKEProposals::few();
  std::vector<std::string> lacking;
  auto proposals = knownProposals(
      few.ike, [this](const std::string &algorithm) { return daemon_->knows(algorithm); }, lacking);
  if (choked && !firstRefusal_ && !proposals.empty() && std::chrono::steady_clock::now() < until_) {
    firstRefusal_ = refusal;
    if (settings.proposals.empty()) plan_.proposals = std::move(proposals);
    if (settings.espProposals.empty()) plan_.espProposals = few.esp;
    return negotiate();
  }
  // The one that came further says more.
  const IKERefusal &told = firstRefusal_ && firstRefusal_->stage > refusal.stage ? *firstRefusal_ : refusal;
  const bool unanswered = told.silent && told.stage <= IKEStage::keyExchange;
  fail(unanswered ? DeviceCause::noAnswer : DeviceCause::protocolError, sentenceFor(told));
}

std::string IKEAssociation::sentenceFor(const IKERefusal &refusal) const {
  const EngineSettings::IKE &settings = context_.settings;
  const IKEProposals broad = IKEProposals::broad();
  const std::string file = EngineSettings::kPath;
  const std::string daemon = daemon_->description();
  switch (refusal.stage) {
    case IKEStage::begin:
      return "The IKE daemon (" + daemon + ") could not begin to talk to " + server_ +
             "; the system's log says why. A daemon without IKE version 1 does the same.";
    case IKEStage::firstAnswer:
      return "The server " + server_ +
             " does not answer on UDP port 500 (IKE); check the address, and that a firewall lets UDP ports 500 and "
             "4500 through.";
    case IKEStage::proposals:
      return "The server " + server_ + " refuses how IKE is to be protected; offered were " +
             commaSeparated(settings.proposals.empty() ? broad.ike : settings.proposals) +
             ". What the server knows can be set as ike.proposals in " + file + ".";
    case IKEStage::keyExchange:
      return "The server " + server_ + (refusal.silent ? " stopped answering" : " gave up") +
             " during IKE's key exchange; a firewall may drop large packets, or UDP port 4500.";
    case IKEStage::authentication:
      return "The server " + server_ + (refusal.silent ? " stopped answering" : " said no") +
             " when the shared secret was to be proved: the shared secret is probably wrong, or the server knows this "
             "client under another address" +
             (settings.remoteIdentity == "%any" ? "" : ", or it is not called " + settings.remoteIdentity) + ".";
    case IKEStage::association:
      if (!table_->knowsESP()) return "The kernel cannot do ESP: load its module (modprobe esp4).";
      return "The server " + server_ + " accepts the shared secret but " +
             (refusal.silent ? "stopped answering" : "refuses") + " when packets are to be protected; offered were " +
             commaSeparated(settings.espProposals.empty() ? broad.esp : settings.espProposals) +
             ", transport mode, for UDP port " + std::to_string(flow_.remotePort) +
             ". What the server knows can be set as ike.esp_proposals in " + file + ".";
  }
  return {};
}

void IKEAssociation::fail(DeviceCause cause, std::string sentence) {
  secret_.reset();
  handlers_.failed(TunnelFailure{cause, std::move(sentence)});
}

void IKEAssociation::stop() {
  if (stopping_) return;
  stopping_ = true;
  secret_.reset();
  if (daemon_) return daemon_->close();
  nextTurn_ = linux::EventSource::soon(context_.event, [this] { handlers_.stopped(); });
}

// What the daemon could not take out of the kernel goes now, because it died, or because a packet met the guard and the
// kernel waits for an association for it. What stays, here or there, stays noted: whoever undoes the journal tries
// again, and tells.
void IKEAssociation::forget(const Status &takenBack) {
  const Status removed = table_ ? table_->remove(plan_.reqid) : Status();
  table_.reset();
  if (!noted_) {
    if (!removed) context_.log.write("IPSec: " + removed.error().message + ".");
    return;
  }
  if (takenBack && removed) context_.journal.forgetConnection(*noted_);
  noted_.reset();
}

std::unique_ptr<IPSecAssociation> makeIKEAssociation(const IKEContext &context, const std::string &secretName,
                                                     IPSecAssociation::Handlers handlers) {
  const auto daemon = [context](IKEDaemon::Handlers daemonHandlers) -> std::unique_ptr<IKEDaemon> {
    const EngineSettings::IKE &settings = context.settings;
    CharonProcess::Places places;
    if (!settings.socket.empty()) places.controlSockets = {settings.socket};
    return std::make_unique<Charon>(context.event, context.journal, places,
                                    Charon::Settings{settings.lifetime, settings.espLifetime, settings.deadPeerDelay},
                                    Charon::Deadlines{}, std::move(daemonHandlers));
  };
  const auto table = []() -> foundation::Result<std::unique_ptr<XfrmTable>> {
    auto opened = NetlinkXfrmTable::open();
    if (!opened) return opened.error();
    return std::unique_ptr<XfrmTable>(std::move(*opened));
  };
  return std::make_unique<IKEAssociation>(context, secretName, IKEAssociation::Parts{daemon, table, guardSocket},
                                          std::move(handlers));
}

Status takeBack(const LoadedConnection &entry) {
  const Status takenBack = Charon::takeBack(entry.controlSocket, entry.name, kTakeBack);
  Status removed;
  if (auto table = NetlinkXfrmTable::open(); table)
    removed = (*table)->remove(entry.reqid);
  else if (table.error().code != NetlinkXfrmTable::kNoIPSec)
    removed = table.error();
  return takenBack ? removed : takenBack;
}

}  // namespace helper
