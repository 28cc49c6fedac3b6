#include "helper/ike/Charon.h"

#include <arpa/inet.h>
#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "helper/common/EngineSettings.h"
#include "helper/common/IPv4Address.h"
#include "helper/ike/ViciExchange.h"

namespace helper {

using foundation::Status;
using vici::Section;

namespace {

std::string seconds(std::chrono::seconds duration) { return std::to_string(duration.count()) + "s"; }

// Made anew a tenth before its end, and a random bit earlier, so that the two ends do not do it at the same moment.
std::chrono::seconds renewal(std::chrono::seconds lifetime) { return lifetime - lifetime / 10; }

// The only section of an event about associations that is one: it bears the connection's name.
const Section &associationOf(const Section &event, const std::string &name) { return event.section(name); }

bool isThere(const Section &child) {
  const std::string &state = child.value("state");
  return state == "INSTALLED" || state == "INSTALLING" || state == "REKEYING" || state == "UPDATING";
}

bool hasChild(const Section &association) {
  const auto &children = association.section("child-sas").elements();
  return std::any_of(children.begin(), children.end(), [](const vici::Element &element) {
    const auto *child = std::get_if<Section>(&element.value);
    return child != nullptr && isThere(*child);
  });
}

// As far as can be seen in an association that is still being negotiated.
IKEStage stageOf(const Section &association) {
  if (association.value("state") == "ESTABLISHED") return IKEStage::association;
  if (!association.value("encr-alg").empty())
    // Who we are is decided with the message that proves the secret.
    return association.value("local-id") == "%any" ? IKEStage::keyExchange : IKEStage::authentication;
  const std::string &theirs = association.value("responder-spi");
  if (theirs.find_first_not_of('0') != std::string::npos) return IKEStage::proposals;
  return IKEStage::firstAnswer;
}

}  // namespace

Charon::Charon(sd_event *event, IPSecJournal &journal, const CharonProcess::Places &places, const Settings &settings,
               const Deadlines &deadlines, Handlers handlers)
    : event_(event),
      settings_(settings),
      deadlines_(deadlines),
      handlers_(std::move(handlers)),
      process_(event, journal, places, CharonProcess::Deadlines{},
               CharonProcess::Handlers{.ready = [this](const std::string &socket) { connect(socket); },
                                       .failed = [this](const std::string &sentence) { unusable(sentence); },
                                       .stopped = [this] { closed(); }}) {}

Charon::~Charon() { static_cast<void>(closeNow()); }

void Charon::open() {
  state_ = State::opening;
  until_ = std::chrono::steady_clock::now() + deadlines_.open;
  process_.start();
}

void Charon::connect(const std::string &controlSocket) {
  controlSocket_ = controlSocket;
  auto first = ViciConnection::connect(controlSocket);
  auto second = ViciConnection::connect(controlSocket);
  if (!first || !second) {
    const foundation::Error &error = (first ? second : first).error();
    if (error.code != EAGAIN || std::chrono::steady_clock::now() >= until_)
      return unusable("The IKE daemon cannot be spoken to: " + error.message + ".");
    // One that is just starting lets nobody in yet, and has room for few to wait.
    retry_ = linux::EventSource::timer(event_, deadlines_.retry, [this] { connect(controlSocket_); });
    return;
  }
  const auto ended = [this](const std::string &reason) { daemonEnded(reason); };
  load_.emplace(event_, std::move(*first), ViciConnection::Handlers{[](const auto &, const auto &) {}, ended});
  watch_.emplace(
      event_, std::move(*second),
      ViciConnection::Handlers{[this](const std::string &name, const Section &event) { heard(name, event); }, ended});
  ask();
}

void Charon::ask() {
  for (const char *event : {"list-sa", "ike-updown", "child-updown"})
    watch_->listen(event, deadlines_.request, [](const Outcome &) {});
  // Both before we are ready: the first sentence may need them.
  load_->request("version", {}, deadlines_.request, [this](const Outcome &outcome) {
    if (outcome) description_ = outcome->value("daemon") + " " + outcome->value("version");
  });
  load_->request("get-algorithms", {}, deadlines_.request, [this](const Outcome &outcome) {
    if (outcome) algorithms_ = CharonAlgorithms(*outcome);
    if (state_ != State::opening) return;
    state_ = State::ready;
    handlers_.ready();
  });
}

bool Charon::knows(const std::string &algorithm) const { return algorithms_.has(algorithm); }

foundation::Result<Peer> Charon::peer() const { return Peer::ofSocket(load_ ? load_->socket() : -1); }

Section Charon::connection(const char *version) const {
  const std::string local = textOf(plan_.local);
  const std::string remote = textOf(plan_.remote);
  Section child;
  child.add("mode", "transport")
      .add("local_ts", Section::List{"dynamic[udp/" + std::to_string(plan_.localPort) + "]"})
      .add("remote_ts", Section::List{"dynamic[udp/" + std::to_string(plan_.remotePort) + "]"})
      .add("esp_proposals", plan_.espProposals)
      .add("reqid", std::to_string(plan_.reqid))
      .add("life_time", seconds(settings_.espLifetime))
      .add("rekey_time", seconds(renewal(settings_.espLifetime)))
      .add("rand_time", seconds(settings_.espLifetime / 20))
      .add("dpd_action", "clear");
  // charon puts an association onto another connection's IKE association when the two connections are alike in
  // everything but their names. Then it would end with that. So they differ, in what matters least.
  const auto bit = [&](std::uint32_t number, std::chrono::seconds most) {
    return std::chrono::seconds(number % static_cast<std::uint32_t>(std::max<std::int64_t>(1, most.count())));
  };
  Section section;
  section.add("version", version)
      .add("local_addrs", Section::List{local})
      .add("remote_addrs", Section::List{remote})
      .add("proposals", plan_.proposals)
      .add("rekey_time", seconds(renewal(settings_.lifetime)))
      .add("over_time", seconds(settings_.lifetime / 10 + bit(plan_.reqid >> 16, settings_.lifetime / 40)))
      .add("rand_time", seconds(settings_.lifetime / 20 + bit(plan_.reqid, settings_.lifetime / 4)))
      .add("dpd_delay", seconds(settings_.deadPeerDelay))
      .add("local", Section().add("auth", "psk"))
      .add("remote", Section().add("auth", "psk").add("id", plan_.remoteIdentity))
      .add("children", Section().add(plan_.name, child));
  return Section().add(plan_.name, section);
}

void Charon::negotiate(const IKEPlan &plan, const foundation::Secret &secret) {
  plan_ = plan;
  ++attempt_;
  until_ = std::chrono::steady_clock::now() + plan.deadline;
  stage_ = IKEStage::begin;
  begun_ = false;
  state_ = State::negotiating;
  secret_ = secret;
  if (!loaded_) return load();
  // What is left of the attempt before goes first.
  watch_->request("terminate", Section().add("ike", plan_.name).add("force", "yes").add("timeout", "500"),
                  deadlines_.request, [this](const Outcome &) { load(); });
}

void Charon::load() {
  if (state_ != State::negotiating) return;
  loaded_ = true;
  loading_ = true;
  Section::List owners{textOf(plan_.local), textOf(plan_.remote)};
  if (plan_.remoteIdentity != "%any") owners.push_back(plan_.remoteIdentity);
  load_->request(
      "load-shared",
      Section().add("id", plan_.name).add("type", "IKE").add("data", std::move(*secret_)).add("owners", owners),
      deadlines_.request, [this](const Outcome &outcome) {
        if (state_ != State::negotiating || outcome) return;
        unusable("The IKE daemon (" + description_ + ") does not take the shared secret: " + outcome.error().message +
                 ".");
      });
  secret_.reset();
  load_->request("load-conn", connection("1"), deadlines_.request, [this](const Outcome &outcome) {
    loading_ = false;
    if (state_ == State::closing) return done();
    if (state_ != State::negotiating) return;
    if (!outcome) return connectionRefused(outcome.error().message);
    initiate();
  });
}

void Charon::connectionRefused(const std::string &reason) {
  // Would it take the very same for version 2? Then it is the version that it lacks.
  loading_ = true;
  load_->request("load-conn", connection("2"), deadlines_.request, [this, reason](const Outcome &outcome) {
    loading_ = false;
    if (state_ == State::closing) return done();
    if (state_ != State::negotiating) return;
    if (outcome)
      return unusable("The IKE daemon (" + description_ +
                      ") was built without IKE version 1, which L2TP over IPSec needs; install one that has it "
                      "(strongSwan before 6.1, or a later one built with --enable-ikev1).");
    unusable("The IKE daemon (" + description_ + ") does not take the connection: " + reason +
             "; check the proposals in " + std::string(EngineSettings::kPath) + ".");
  });
}

void Charon::initiate() {
  begun_ = true;
  initiating_ = true;
  load_->request("initiate",
                 Section()
                     .add("child", plan_.name)
                     .add("ike", plan_.name)
                     .add("timeout", std::to_string(std::max<std::int64_t>(1, plan_.deadline.count())))
                     .add("loglevel", "-1"),
                 plan_.deadline + deadlines_.request, [this, attempt = attempt_](const Outcome &outcome) {
                   initiating_ = false;
                   if (state_ == State::closing) return done();
                   if (attempt == attempt_) initiated(outcome);
                 });
  reach(IKEStage::firstAnswer);
  poll_ = linux::EventSource::timer(event_, deadlines_.look, [this] { look(); });
}

void Charon::initiated(const Outcome &outcome) {
  if (state_ != State::negotiating) return;
  if (!outcome) return classify();
  poll_.reset();
  silence_.reset();
  state_ = State::established;
  // Its end may have been told of, on the other connection, before its beginning was: nobody tells again.
  isChildThere();
  handlers_.established();
}

// Without waiting for one that is just being worked on.
void Charon::look() {
  watch_->request(
      "list-sas", Section().add("ike", plan_.name).add("noblock", "yes"), deadlines_.request,
      [this, attempt = attempt_](const Outcome &) {
        if (state_ == State::negotiating && attempt == attempt_)
          poll_ = linux::EventSource::timer(
              event_, deadlines_.look, [this] { look(); });
      });
}

// The last word of the daemon about it may still be under way on the other connection: behind an answer there, all has
// been heard.
void Charon::classify() {
  poll_.reset();
  silence_.reset();
  watch_->request("list-sas", Section().add("ike", plan_.name), deadlines_.request,
                  [this, attempt = attempt_](const Outcome &) {
                    if (state_ == State::negotiating && attempt == attempt_)
                      refuse(std::chrono::steady_clock::now() >= until_);
                  });
}

void Charon::heard(const std::string &name, const Section &event) {
  const Section &association = associationOf(event, plan_.name);
  if (association.elements().empty()) return;  // somebody else's
  if (state_ == State::negotiating && begun_) observe(association);
  if (state_ != State::established) return;
  if (name == "list-sa")
    childSeen_ = childSeen_ || hasChild(association);
  else if (event.value("up") != "yes")
    isChildThere();
}

void Charon::observe(const Section &association) {
  IKEStage stage = stageOf(association);
  // A server that says no without a number of its own has answered nevertheless.
  if (association.value("state") == "CONNECTING" && stage == IKEStage::firstAnswer &&
      !association.list("tasks-passive").empty())
    stage = IKEStage::proposals;
  reach(stage);
}

void Charon::reach(IKEStage stage) {
  if (stage <= stage_) return;
  stage_ = stage;
  silence_.reset();
  // What comes last also waits for our own kernel, which may have to load its ciphers first: the whole deadline is for
  // it.
  if (stage == IKEStage::association) return;
  silence_ = linux::EventSource::timer(
      event_, stage == IKEStage::firstAnswer ? deadlines_.firstAnswer : deadlines_.stage, [this] { refuse(true); });
}

void Charon::refuse(bool silent) {
  poll_.reset();
  silence_.reset();
  state_ = State::refused;
  handlers_.refused(IKERefusal{stage_, silent});
}

// Something of ours has ended. Perhaps it was replaced, by new keys or by a new association.
void Charon::isChildThere() {
  // What one answer shows is not to be mistaken for the next one's.
  lookAgain_ = looking_;
  if (looking_) return;
  looking_ = true;
  childSeen_ = false;
  watch_->request("list-sas", Section().add("ike", plan_.name), deadlines_.request, [this](const Outcome &) {
    looking_ = false;
    if (lookAgain_) return isChildThere();
    if (state_ == State::established && !childSeen_) lose("The server has ended the IPSec association.");
  });
}

void Charon::close() {
  // On a connection that has ended nothing is answered any more.
  const bool open = state_ != State::idle && watch_ && watch_->socket() >= 0;
  state_ = State::closing;
  secret_.reset();
  poll_.reset();
  silence_.reset();
  retry_.reset();
  if (!open || !loaded_) return finish();
  watch_->request("terminate", Section().add("ike", plan_.name).add("force", "yes").add("timeout", "500"),
                  deadlines_.terminate, [this](const Outcome &) {
                    if (!busy()) return unload();
                    // An association that was just being made when we said so is ended when the daemon tells of it; a
                    // secret or a connection that it was just taking would come after its own unloading.
                    poll_ = linux::EventSource::timer(event_, deadlines_.terminate, [this] { unload(); });
                  });
}

void Charon::done() {
  if (!busy()) unload();
}

void Charon::unload() {
  if (unloading_) return;
  unloading_ = true;
  poll_.reset();
  watch_->request("terminate", Section().add("ike", plan_.name).add("force", "yes").add("timeout", "500"),
                  deadlines_.terminate, [](const Outcome &) {});
  watch_->request("unload-conn", Section().add("name", plan_.name), deadlines_.terminate, [](const Outcome &) {});
  watch_->request("unload-shared", Section().add("id", plan_.name), deadlines_.terminate, [this](const Outcome &) {
    // What never was answered may have come after it.
    loaded_ = loading_;
    finish();
  });
}

void Charon::finish() {
  if (finished_) return;
  finished_ = true;
  poll_.reset();
  process_.stop();
}

void Charon::closed() {
  state_ = State::closed;
  // It did not answer in time, or never before its end: one more try, on a connection of its own. A daemon that has
  // ended with us has forgotten everything.
  Status takenBack = loaded_ ? takeBack(controlSocket_, plan_.name, deadlines_.destruction) : Status();
  // What it is still taking would come after that.
  if (loaded_ && loading_ && takenBack) takenBack = foundation::errnoError(ETIMEDOUT, "wait for the IKE daemon");
  loaded_ = false;
  handlers_.closed(takenBack);
}

Status Charon::closeNow() {
  // What the daemon is just taking would come after its own unloading. What waits behind that is never said.
  bool answered = true;
  if (loading_ && !initiating_ && load_->socket() >= 0) {
    pollfd answer{load_->socket(), POLLIN, 0};
    answered = ::poll(&answer, 1, static_cast<int>(deadlines_.destruction.count())) > 0;
  }
  load_.reset();
  watch_.reset();
  poll_.reset();
  silence_.reset();
  retry_.reset();
  state_ = State::closed;
  if (!loaded_) return {};
  loaded_ = false;
  const Status takenBack = takeBack(controlSocket_, plan_.name, deadlines_.destruction);
  return takenBack && !answered ? foundation::errnoError(ETIMEDOUT, "wait for the IKE daemon") : takenBack;
}

void Charon::daemonEnded(const std::string &reason) {
  secret_.reset();
  poll_.reset();
  silence_.reset();
  if (state_ == State::closing) return finish();
  if (state_ == State::established)
    lose("The IKE daemon " + reason + "; without it the IPSec association cannot be kept.");
  else if (state_ != State::refused && state_ != State::closed)
    unusable("The IKE daemon " + reason + " while it was needed.");
}

void Charon::lose(std::string sentence) {
  state_ = State::refused;
  handlers_.lost(sentence);
}

void Charon::unusable(std::string sentence) {
  state_ = State::refused;
  handlers_.unusable(sentence);
}

Status Charon::takeBack(const std::string &controlSocket, const std::string &name, std::chrono::milliseconds deadline) {
  struct Command {
    const char *name;
    Section message;
  };
  const std::array commands{Command{"terminate", Section().add("ike", name).add("force", "yes").add("timeout", "200")},
                            Command{"unload-conn", Section().add("name", name)},
                            Command{"unload-shared", Section().add("id", name)}};
  Status status;
  for (const Command &command : commands) {
    // Each on a connection of its own: one that takes its time leaves the others theirs.
    auto daemon = ViciExchange::connect(controlSocket, deadline);
    if (!daemon) {
      // Without a daemon there is nothing left to take back from it, also when it has ended in the middle.
      const int reason = daemon.error().code;
      return reason == ENOENT || reason == ECONNREFUSED ? Status() : daemon.error();
    }
    const auto answer = daemon->request(command.name, command.message);
    // That it has nothing of that name is as good as success.
    if (!answer && !viciRefused(answer.error())) status = answer.error();
  }
  return status;
}

}  // namespace helper
