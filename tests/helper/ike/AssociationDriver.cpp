// association-driver: one IPSec association without a tunnel in it, for trying it where there is a kernel with ESP.
//
//   association-driver [--beat MILLISECONDS] [--port PORT] [--proposal P]... [--esp P]... SERVER SHARED-SECRET
//
// Prints what happens with the milliseconds since the start. From the start on, a datagram goes out twice a second:
// only the association lets it through. What comes in is printed. SIGUSR1 and SIGTERM stop it; SIGINT destroys it as a
// lost tool would. Ends when it is stopped: 0, or 1 when it never came up.

#include <arpa/inet.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <array>
#include <cstdio>
#include <cstring>

#include "helper/Peer.h"
#include "helper/ike/IKEAssociation.h"
#include "helper/link/Undo.h"

namespace {

class FixedSecret : public helper::SecretSource {
 public:
  explicit FixedSecret(std::string secret) : secret_(std::move(secret)) {}
  foundation::Result<foundation::Secret> secretForService(const std::string &, const helper::Peer &peer) override {
    if (!peer.runs("/usr/lib/ipsec/charon")) return foundation::Error{"Driver", 0, "the wrong peer"};
    return foundation::Secret(secret_);
  }

 private:
  std::string secret_;
};

struct Run {
  sd_event *event = nullptr;
  int socket = -1;
  std::unique_ptr<helper::IPSecAssociation> association;
  helper::EventSource beat;
  std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
  bool wasUp = false;
  std::chrono::milliseconds interval{500};

  void say(const std::string &text) const {
    const auto elapsed =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
    std::printf("%6lld ms: %s\n", static_cast<long long>(elapsed.count()), text.c_str());
    std::fflush(stdout);
  }
  void send() {
    if (interval.count() == 0) return;
    if (::send(socket, "anybody there?", 14, MSG_DONTWAIT) < 0) say(std::string("not sent: ") + std::strerror(errno));
    beat = helper::EventSource::timer(event, interval, [this] { send(); });
  }
  void receive() const {
    std::array<char, 2048> bytes{};
    const ssize_t count = ::recv(socket, bytes.data(), bytes.size(), MSG_DONTWAIT);
    say(count < 0 ? std::string("not received: ") + std::strerror(errno)
                  : "received " + std::string(bytes.data(), static_cast<std::size_t>(count)));
  }
};

int signalled(sd_event_source *, const signalfd_siginfo *info, void *context) {
  Run &run = *static_cast<Run *>(context);
  if (info->ssi_signo == SIGINT) {
    run.association.reset();
    run.say("destroyed");
    return sd_event_exit(run.event, 0);
  }
  run.association->stop();
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  std::vector<std::string> arguments(argv + 1, argv + argc);
  Run run;
  std::uint16_t port = 0;
  helper::EngineSettings settings;
  while (arguments.size() > 2 && arguments.front().starts_with("--")) {
    if (arguments[0] == "--beat") run.interval = std::chrono::milliseconds(std::stoi(arguments[1]));
    if (arguments[0] == "--port") port = static_cast<std::uint16_t>(std::stoi(arguments[1]));
    if (arguments[0] == "--proposal") settings.ike.proposals.push_back(arguments[1]);
    if (arguments[0] == "--esp") settings.ike.espProposals.push_back(arguments[1]);
    arguments.erase(arguments.begin(), arguments.begin() + 2);
  }
  auto log = helper::PPPLog::open();
  if (arguments.size() != 2 || !log) return 2;
  run.socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_port = htons(port);
  sockaddr_in server{};
  server.sin_family = AF_INET;
  server.sin_port = htons(1701);
  inet_pton(AF_INET, arguments[0].c_str(), &server.sin_addr);
  if (::bind(run.socket, reinterpret_cast<sockaddr *>(&local), sizeof local) < 0 ||
      ::connect(run.socket, reinterpret_cast<sockaddr *>(&server), sizeof server) < 0)
    return 2;

  sigset_t signals;
  sigemptyset(&signals);
  for (const int number : {SIGINT, SIGTERM, SIGUSR1}) sigaddset(&signals, number);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  if (sd_event_new(&run.event) < 0) return 2;
  for (const int number : {SIGINT, SIGTERM, SIGUSR1})
    if (sd_event_add_signal(run.event, nullptr, number, signalled, &run) < 0) return 2;
  std::vector<foundation::Error> errors;
  auto routes = helper::NetlinkRouteTable::open();
  helper::Undo undo(**routes, [&run](const std::string &sentence) { run.say(sentence); });
  for (helper::Journal &abandoned : helper::Journal::abandoned(helper::Journal::kBase, errors)) undo.finish(abandoned);
  auto journal = helper::Journal::create();
  if (!journal) return 2;

  FixedSecret secrets(arguments[1]);
  foundation::Value ipsec{foundation::Value::Dictionary{}};
  ipsec.set("SharedSecret", "the-secret");
  run.association = helper::makeIKEAssociation(
      {run.event, secrets, *log, *journal, settings}, ipsec,
      {.up =
           [&run] {
             run.wasUp = true;
             run.say("up");
           },
       .failed =
           [&run](const helper::TunnelFailure &failure) {
             run.say("failed, cause " + std::to_string(static_cast<int>(failure.cause)) + ": " + failure.sentence);
             run.association->stop();
           },
       .lost =
           [&run](const std::string &sentence) {
             run.say("lost: " + sentence);
             run.association->stop();
           },
       .stopped =
           [&run] {
             run.say("stopped");
             sd_event_exit(run.event, run.wasUp ? 0 : 1);
           }});
  run.association->start(run.socket);
  run.send();
  const auto incoming =
      helper::EventSource::io(run.event, run.socket, EPOLLIN, [&run](std::uint32_t) { run.receive(); });
  const int status = sd_event_loop(run.event);
  undo.finish(*journal);
  return status;
}
