// An Initiator, a server, and a network and a kernel between them that do what the test says.

#pragma once

#include <deque>

#include "helper/isakmp/Initiator.h"
#include "tests/helper/isakmp/TestServer.h"

namespace helper::isakmp {

inline Plan usualPlan() {
  Plan plan;
  plan.local = {10, 9, 0, 2};
  plan.localPort = 40000;
  plan.remote = {10, 9, 0, 1};
  plan.flowLocalPort = 1701;
  plan.identity = Identification::of(plan.local);
  plan.ike = {{CipherAlgorithm::aes256, HashAlgorithm::sha1, Group::ecp256}};
  plan.esp = {{CipherAlgorithm::aes256, HashAlgorithm::sha1, {}}};
  return plan;
}

inline TestServerOptions usualServer() {
  TestServerOptions options;
  options.vendorIDs = TestServerOptions::extensions(NATTraversal::rfc3947);
  return options;
}

class Conversation {
 public:
  explicit Conversation(Plan wanted = usualPlan(), TestServerOptions options = usualServer(),
                        std::string_view secret = "secret")
      : plan(std::move(wanted)), server(std::move(options)), initiator(plan, vpnctl::Secret(secret), random) {}

  // What becomes of a datagram; the default lets everything pass. The number counts from 0, each way.
  std::function<bool(bool toServer, std::size_t number)> passes = [](bool, std::size_t) { return true; };
  bool kernelAnswers = true;

  Plan plan;
  CountingRandomness random;
  TestServer server;
  Initiator initiator;
  Instant now{1000};
  Outputs told;                   // all
  std::vector<Bytes> fromServer;  // all its messages, as they arrived or would have
  std::vector<Bytes> toServer;
  std::uint32_t nextSPI = 0xc1000001;

  void start() { apply(initiator.start(now)); }
  void deliver(const Send &send) { apply(initiator.received(now, send.port, send.datagram)); }
  void deliver(View message) { deliver(server.toClient(message)); }
  void stop() { apply(initiator.stop(now)); }

  // Lets TIME pass, with everything that becomes due in it.
  void pass(std::chrono::milliseconds time) {
    const Instant end = now + time;
    for (auto next = initiator.nextDue(); next && *next <= end; next = initiator.nextDue()) {
      now = std::max(now, *next);
      apply(initiator.due(now));
    }
    now = end;
  }

  template <class T>
  std::vector<T> all() const {
    std::vector<T> found;
    for (const Output &output : told)
      if (const auto *value = std::get_if<T>(&output)) found.push_back(*value);
    return found;
  }
  template <class T>
  std::size_t count() const {
    return all<T>().size();
  }
  template <class T>
  T last() const {
    const auto found = all<T>();
    return found.empty() ? T{} : found.back();
  }
  bool isUp() const { return count<Established>() == 1 && count<Lost>() == 0; }
  bool dropped(std::string_view why) const {
    for (const Dropped &each : all<Dropped>())
      if (each.why == why) return true;
    return false;
  }
  // For messages of a failure.
  std::string drops() const {
    std::string text;
    for (const Dropped &each : all<Dropped>()) text += each.why + "; ";
    return text;
  }
  // States that are in the kernel.
  std::vector<InstallState> states() const {
    std::vector<InstallState> there;
    for (const Output &output : told) {
      if (const auto *state = std::get_if<InstallState>(&output)) there.push_back(*state);
      if (const auto *removed = std::get_if<RemoveStates>(&output))
        std::erase_if(there, [&](const InstallState &s) { return s.pair == removed->pair; });
    }
    return there;
  }

  void apply(Outputs outputs) {
    for (Output &output : outputs) pending_.push_back(std::move(output));
    if (working_) return;
    working_ = true;
    while (!pending_.empty()) {
      const Output output = std::move(pending_.front());
      pending_.pop_front();
      told.push_back(output);
      perform(output);
    }
    working_ = false;
  }

 private:
  void perform(const Output &output) {
    if (const auto *send = std::get_if<Send>(&output)) return transmit(*send);
    if (!kernelAnswers) return;
    if (const auto *need = std::get_if<NeedSPI>(&output)) apply(initiator.allocated(now, need->pair, nextSPI++));
    if (const auto *state = std::get_if<InstallState>(&output))
      apply(initiator.installed(now, state->pair, state->direction));
  }
  void transmit(const Send &send) {
    toServer.push_back(send.datagram);
    if (!passes(true, toServer.size() - 1)) return;
    for (const Send &answer : server.receive(send.port, send.datagram)) {
      fromServer.push_back(answer.datagram);
      if (passes(false, fromServer.size() - 1)) deliver(answer);
    }
  }

  std::deque<Output> pending_;
  bool working_ = false;
};

}  // namespace helper::isakmp
