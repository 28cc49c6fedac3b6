#include "helper/ike/IKEAssociation.h"

#include <sys/random.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "helper/common/IPv4Address.h"
#include "helper/ike/IKESentences.h"
#include "helper/ike/SocketPolicy.h"
#include "linux/Process.h"

namespace helper {

using isakmp::Reason;
using isakmp::Refused;
using isakmp::Stage;
using vpnctl::Error;
using vpnctl::Result;
using vpnctl::Status;

namespace {

constexpr std::uint16_t kIKEPort = 500;
// 15 seconds of silence in one stage; the deadline of all of them is another.
constexpr int kTries = 4;
// Below it are the numbers that IKE daemons give away one after another, and those kept for people.
constexpr std::uint32_t kLowestReqid = 0x01000000;
constexpr char kNoIPSec[] = "the kernel has no IPSec: load its modules (modprobe -a esp4 xfrm_user)";

std::uint32_t randomNumber() {
  std::uint32_t number = 0;
  while (::getrandom(&number, sizeof number, 0) != sizeof number) {
  }
  return number;
}

isakmp::IPv4Bytes bytesOf(in_addr address) {
  isakmp::IPv4Bytes bytes{};
  std::memcpy(bytes.data(), &address, bytes.size());
  return bytes;
}

}  // namespace

IKEAssociation::IKEAssociation(const IKEContext &context, std::string secretName, Parts parts, Handlers handlers)
    : context_(context), secretName_(std::move(secretName)), parts_(std::move(parts)), handlers_(std::move(handlers)) {}

IKEAssociation::~IKEAssociation() {
  closeChild();
  forget();
}

void IKEAssociation::start(int socket, int other) {
  if (started_ || stopping_) return;
  started_ = true;
  until_ = std::chrono::steady_clock::now() + context_.settings.deadline;
  // The guard has to stand before anybody can send anything.
  Status prepared = prepare(socket, other);
  nextTurn_ = linux::EventSource::soon(context_.event, [this, prepared = std::move(prepared)] {
    if (!prepared)
      return fail(DeviceCause::protocolError, "No IPSec association is possible: " + prepared.error().message + ".");
    deadline_ = linux::EventSource::timer(context_.event, context_.settings.deadline, [this] { giveUp(stage_); });
    attempt();
  });
}

// Returns its port. Which of two the server takes it says only later, so nothing may leave either before.
Result<std::uint16_t> IKEAssociation::guard(int socket) {
  if (const Status guarded = parts_.guard(socket, reqid_); !guarded)
    return Error{"IPSec", guarded.error().code, std::string(kNoIPSec) + " (" + guarded.error().message + ")"};
  sockaddr_in local{};
  socklen_t size = sizeof local;
  if (::getsockname(socket, reinterpret_cast<sockaddr *>(&local), &size) < 0)
    return vpnctl::errnoError(errno, "ask for the socket's port");
  const std::uint16_t port = ntohs(local.sin_port);
  flowSockets_[port] = socket;
  return port;
}

Status IKEAssociation::prepare(int socket, int other) {
  sockaddr_in local{};
  sockaddr_in remote{};
  socklen_t size = sizeof local;
  if (::getsockname(socket, reinterpret_cast<sockaddr *>(&local), &size) < 0)
    return vpnctl::errnoError(errno, "ask for the socket's address");
  size = sizeof remote;
  if (::getpeername(socket, reinterpret_cast<sockaddr *>(&remote), &size) < 0)
    return vpnctl::errnoError(errno, "ask for the server's address");
  local_ = local.sin_addr;
  remote_ = remote.sin_addr;
  flowRemotePort_ = ntohs(remote.sin_port);
  server_ = textOf(remote_);
  auto table = parts_.table();
  if (!table) return Error{"IPSec", 0, kNoIPSec};
  table_ = std::move(*table);
  reqid_ = kLowestReqid + randomNumber() % (0x7fffffff - kLowestReqid);
  const auto port = guard(socket);
  if (!port) return port.error();
  flowLocalPort_ = *port;
  if (other >= 0) {
    const auto otherPort = guard(other);
    if (!otherPort) return otherPort.error();
    otherFlowLocalPort_ = *otherPort;
  }
  // Not before the guard, which may be what loads the modules. From here on a packet that meets it leaves a state.
  if (Status noted = context_.journal.noteFlow({reqid_}); !noted) return noted;
  noted_ = true;
  std::vector<std::string> unusable;
  auto proposals = IKEProposals::from(context_.settings, few_, unusable);
  if (!proposals)
    return Error{"IPSec", 0,
                 std::string(EngineSettings::kPath) + " leaves nothing to offer: " + proposals.error().message};
  for (const std::string &why : unusable)
    context_.log.write(std::string(EngineSettings::kPath) + ": " + why + "; it is not offered to the server.");
  proposals_ = std::move(*proposals);
  if (context_.settings.mode == EngineSettings::IKEMode::aggressive)
    context_.log.write(
        "IKE's aggressive mode is set: whoever asks the server, or reads along, gets what is needed to try out shared "
        "secrets at home; only a long random one withstands that.");
  return {};
}

void IKEAssociation::attempt() {
  stage_ = Stage::firstAnswer;
  auto socket = parts_.socket(local_, way_ == Way::wellKnownPort ? kIKEPort : std::uint16_t{0});
  if (!socket) {
    // Somebody has the port that is the last hope: what was said before holds.
    if (furthest_) return fail(*furthest_);
    return fail(DeviceCause::protocolError, "No IPSec association is possible: " + socket.error().message + ".");
  }
  socket_ = std::move(*socket);
  if (const Status opened = openPairs(socket_); !opened)
    return fail(DeviceCause::protocolError, "No IPSec association is possible: " + opened.error().message + ".");
  if (!startChild() || !readSecret() || !orderStart()) return;
  // One way may take its share of the time, so that some is left for the others.
  patience_ = linux::EventSource::timer(context_.event, std::min(parts_.silence, context_.settings.deadline / 4),
                                        [this] { giveUp(Stage::firstAnswer); });
}

Status IKEAssociation::openPairs(const IKESocket &socket) {
  auto states = parts_.states(reqid_);
  if (!states) return states.error();
  auto watch = parts_.watch([this](const ESPStateWatch::News &news) { statesRemoved(news); });
  if (!watch) return watch.error();
  watch_ = std::move(*watch);
  pairs_ = std::make_unique<ESPPairs>(
      std::move(*states), ESPPairs::Terms{local_, remote_, socket.port, proposals_.esp, way_ == Way::encapsulated,
                                          context_.settings.espLifetime});
  return {};
}

bool IKEAssociation::startChild() {
  auto child = parts_.speaker(IKESpeaker::Handlers{.report = [this](const IKEReport &report) { reported(report); },
                                                   .ended = [this](const Status &how) { childEnded(how); }});
  if (!child) {
    fail(DeviceCause::protocolError, "No IPSec association is possible: " + child.error().message + ".");
    return false;
  }
  child_ = std::move(*child);
  // It ends by itself when we do, unless somebody has stopped it.
  if (const auto startTime = linux::startTimeOf(child_->pid())) {
    const StartedProcess entry{child_->pid(), *startTime};
    if (context_.journal.noteProcess(entry)) notedProcess_ = entry;
  }
  return true;
}

bool IKEAssociation::readSecret() {
  if (secret_) return true;
  const auto peer = child_->peer();
  auto secret = peer ? context_.secrets.secretForService(secretName_, context_.secretUse, *peer)
                     : Result<vpnctl::Secret>(peer.error());
  if (secret && secret->size() > kLargestIKEText)
    secret = Error{"vpnctl-ike", 0, "it is longer than " + std::to_string(kLargestIKEText) + " bytes"};
  if (secret) {
    secret_ = std::move(*secret);
    return true;
  }
  closeChild();
  fail(DeviceCause::noSharedSecret, "There is no shared secret for the connection: " + secret.error().message + ".");
  return false;
}

bool IKEAssociation::orderStart() {
  IKEStart start{plan(), *secret_};
  // It has the server forget what else it has with this address: another link's associations, or an IKE daemon's.
  start.plan.initialContact = !table_->hasOthers(local_, remote_, reqid_);
  const Status ordered = child_->order(std::move(start), socket_.descriptor.get());
  if (ordered) return true;
  closeChild();
  fail(DeviceCause::protocolError, "No IPSec association is possible: " + ordered.error().message + ".");
  return false;
}

isakmp::Plan IKEAssociation::plan() const {
  const EngineSettings::IKE &settings = context_.settings;
  isakmp::Plan plan;
  plan.local = bytesOf(local_);
  plan.localPort = socket_.port;
  plan.remote = bytesOf(remote_);
  plan.flowLocalPort = flowLocalPort_;
  plan.otherFlowLocalPort = otherFlowLocalPort_;
  plan.flowRemotePort = flowRemotePort_;
  plan.identity = isakmp::Identification::of(plan.local);
  if (settings.localIdentity != "%address")
    plan.identity = isakmp::Identification::fromText(settings.localIdentity).value_or(plan.identity);
  if (settings.remoteIdentity != "%any") plan.peerIdentity = isakmp::Identification::fromText(settings.remoteIdentity);
  plan.ike = proposals_.ike;
  plan.esp = proposals_.esp;
  plan.aggressive = settings.mode == EngineSettings::IKEMode::aggressive;
  plan.startOn4500 = plan.forceEncapsulation = way_ == Way::encapsulated;
  plan.ikeLifetime = settings.lifetime;
  plan.espLifetime = settings.espLifetime;
  plan.deadPeerDelay = settings.deadPeerDelay;
  plan.timing.tries = kTries;
  return plan;
}

void IKEAssociation::reported(const IKEReport &report) {
  // Whatever it still says, it was told to end, or has said why it does.
  if (stopping_ || refusal_ || lost_) return;
  std::visit([this](const auto &said) { handle(said); }, report);
}

void IKEAssociation::handle(const isakmp::StageReached &reached) {
  stage_ = reached.stage;
  if (stage_ != Stage::firstAnswer) patience_.reset();
}

void IKEAssociation::handle(const isakmp::NeedSPI &need) { answer(pairs_->allocate(need)); }
void IKEAssociation::handle(const isakmp::InstallState &state) { answer(pairs_->install(state)); }

void IKEAssociation::handle(const isakmp::RemoveStates &states) {
  if (const Status removed = pairs_->remove(states); !removed) forbid(removed.error().message);
}

void IKEAssociation::answer(const Result<IKEOrder> &order) {
  if (!order) return forbid(order.error().message);
  // Otherwise it has ended, or does not read; both are told, or noticed.
  static_cast<void>(child_->order(*order, -1));
}

void IKEAssociation::handle(const isakmp::Established &established) {
  if (up_ || !pairs_->anyStands()) return forbid("that an association stands that does not");
  const auto flow = flowSockets_.find(established.flowLocalPort);
  if (flow == flowSockets_.end()) return forbid("other packets than it was to protect");
  up_ = true;
  secret_.reset();
  patience_.reset();
  deadline_.reset();
  furthest_.reset();
  handlers_.up(flow->second);
}

void IKEAssociation::handle(const isakmp::Replaced &replaced) {
  if (!up_ || !pairs_->stands(replaced.pair)) forbid("that an association stands that does not");
}

void IKEAssociation::handle(const Refused &refused) {
  if (up_) return forbid("a refusal of what stands");
  refusal_ = refused;
  awaitEnd();
}

void IKEAssociation::handle(const isakmp::Lost &lost) {
  if (!up_) return forbid("the loss of what never stood");
  lost_ = sentenceFor(lost, server_);
  awaitEnd();
}

// It was not asked to.
void IKEAssociation::handle(const isakmp::Stopped &) { forbid("that it was told to stop"); }

// Whoever speaks with strangers may be one by now.
void IKEAssociation::forbid(const std::string &what) {
  childEnded(Error{"vpnctl-ike", 0, "it asked for what it may not, " + what});
}

// Before it stands, the server's word on it would come to nothing, and the silence is told.
void IKEAssociation::statesRemoved(const ESPStateWatch::News &news) {
  if (!up_ || stopping_ || lost_ || !pairs_->misses(news)) return;
  lost_ =
      "Another program has taken the connection's IPSec associations out of the kernel (an IKE daemon that starts may "
      "take out all there are); without them nothing can be sent.";
  static_cast<void>(child_->order(IKEStop{}, -1));
  awaitEnd();
}

void IKEAssociation::giveUp(Stage stage) {
  if (stopping_ || refusal_ || !child_) return;
  refusal_ = Refused{stage, Reason::silence, 0, {}, false};
  static_cast<void>(child_->order(IKEStop{}, -1));
  awaitEnd();
}

// It says farewell where there is something to end, and ends. One that does not is ended.
void IKEAssociation::awaitEnd() {
  patience_ = linux::EventSource::timer(
      context_.event, parts_.farewell, [this] { childEnded({}); });
}

void IKEAssociation::childEnded(const Status &how) {
  closeChild();
  if (stopping_) {
    forget();
    return handlers_.stopped();
  }
  if (refusal_) return attemptFailed(*std::exchange(refusal_, std::nullopt));
  const std::string ended =
      "The process that speaks IKE (vpnctl-ike) has ended" + (how ? std::string() : " (" + how.error().message + ")");
  secret_.reset();
  if (!up_) return fail(DeviceCause::protocolError, ended + " while it was needed.");
  const std::string sentence = lost_.value_or(ended + "; without it the IPSec association cannot be kept.");
  up_ = false;
  handlers_.lost(sentence);
}

void IKEAssociation::attemptFailed(const Refused &refusal) {
  // The one that came further says more, and a word more than none.
  if (!furthest_ || refusal.stage > furthest_->stage ||
      (refusal.stage == furthest_->stage && furthest_->reason == Reason::silence))
    furthest_ = refusal;
  if (std::chrono::steady_clock::now() >= until_ || !findAnotherWay(refusal)) return fail(*furthest_);
  attempt();
}

bool IKEAssociation::findAnotherWay(const Refused &refusal) {
  const EngineSettings::IKE &settings = context_.settings;
  const bool silent = refusal.reason == Reason::silence;
  // Some servers choke on many proposals, with a refusal or in silence.
  const bool mayHaveChoked = refusal.stage == Stage::firstAnswer
                                 ? settings.proposals.empty()
                                 : refusal.stage == Stage::association && refusal.reason == Reason::noProposal &&
                                       settings.espProposals.empty();
  const bool nothingHeard = silent && refusal.stage == Stage::firstAnswer;
  if (nothingHeard) {
    if (way_ == Way::wellKnownPort) return false;
    way_ = way_ == Way::usual ? Way::encapsulated : Way::wellKnownPort;
  } else if (!mayHaveChoked || few_) {
    return false;
  }
  few_ = true;
  std::vector<std::string> told;
  auto proposals = IKEProposals::from(settings, few_, told);
  if (proposals) proposals_ = std::move(*proposals);
  return true;
}

void IKEAssociation::fail(const Refused &refusal) {
  std::vector<std::string> told;
  const auto offered = IKEProposals::from(context_.settings, false, told);
  const IKESituation situation{.server = server_,
                               .settings = context_.settings,
                               .offered = offered ? *offered : proposals_,
                               .identity = plan().identity.text(),
                               .flowLocalPort = flowLocalPort_,
                               .otherFlowLocalPort = otherFlowLocalPort_,
                               .flowRemotePort = flowRemotePort_,
                               .kernelRefusal = pairs_ ? pairs_->refusal() : std::string(),
                               .kernelKnowsESP = refusal.reason != Reason::notInstalled || table_->knowsESP()};
  const bool unanswered = refusal.reason == Reason::silence && refusal.stage <= Stage::keyExchange;
  fail(unanswered ? DeviceCause::noAnswer : DeviceCause::protocolError, sentenceFor(refusal, situation));
}

void IKEAssociation::fail(DeviceCause cause, std::string sentence) {
  secret_.reset();
  deadline_.reset();
  patience_.reset();
  handlers_.failed(TunnelFailure{cause, std::move(sentence)});
}

void IKEAssociation::stop() {
  if (stopping_) return;
  stopping_ = true;
  secret_.reset();
  deadline_.reset();
  if (child_) {
    static_cast<void>(child_->order(IKEStop{}, -1));
    return awaitEnd();
  }
  nextTurn_ = linux::EventSource::soon(context_.event, [this] {
    forget();
    handlers_.stopped();
  });
}

// What was told of it is true no more.
void IKEAssociation::closeChild() {
  patience_.reset();
  child_.reset();
  if (notedProcess_) context_.journal.forgetProcess(*notedProcess_);
  notedProcess_.reset();
}

// Also what no pair was made of: a packet met the guard, and the kernel waits for an association for it. What stays
// there stays noted: whoever undoes the journal tries again, and tells.
void IKEAssociation::forget() {
  watch_.reset();
  pairs_.reset();
  const Status removed = table_ ? table_->remove(reqid_) : Status();
  table_.reset();
  socket_ = {};
  if (noted_ && removed) context_.journal.forgetFlow({reqid_});
  if (!noted_ && !removed) context_.log.write("IPSec: " + removed.error().message + ".");
  noted_ = false;
}

std::unique_ptr<IPSecAssociation> makeIKEAssociation(const IKEContext &context, std::shared_ptr<IKESpare> spare,
                                                     const std::string &secretName,
                                                     IPSecAssociation::Handlers handlers) {
  const auto speaker = [spare = std::move(spare)](IKESpeaker::Handlers told) { return spare->take(std::move(told)); };
  const auto states = [](std::uint32_t reqid) -> Result<std::unique_ptr<ESPStates>> {
    auto opened = NetlinkESPStates::open(reqid);
    if (!opened) return opened.error();
    return std::unique_ptr<ESPStates>(std::move(*opened));
  };
  const auto watch = [event = context.event](ESPStateWatch::Handler removed) {
    return NetlinkESPStateWatch::start(event, std::move(removed));
  };
  const auto table = []() -> Result<std::unique_ptr<XfrmTable>> {
    auto opened = NetlinkXfrmTable::open();
    if (!opened) return opened.error();
    return std::unique_ptr<XfrmTable>(std::move(*opened));
  };
  return std::make_unique<IKEAssociation>(
      context, secretName, IKEAssociation::Parts{speaker, IKESocket::open, states, watch, table, guardSocket},
      std::move(handlers));
}

}  // namespace helper
