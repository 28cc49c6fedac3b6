// l2tp-driver: one L2TP tunnel and its pppd, without the link around them and WITHOUT IPSec, for trying the control
// connection and the kernel's sockets alone. Everything travels in clear: for laboratories only; it is not installed.
//
//   l2tp-driver SERVER USER PASSWORD
//
// Prints each event with the milliseconds since the start. SIGUSR1 and SIGTERM end it. Status 0 when PPP came up.

#include <arpa/inet.h>
#include <signal.h>
#include <systemd/sd-event.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "helper/PPPLog.h"
#include "helper/link/L2TPTunnel.h"
#include "helper/link/PPPDaemon.h"
#include "helper/link/PPPOptions.h"
#include "helper/link/PluginPath.h"

namespace {

using helper::EventSource;
using helper::IPSecAssociation;

class NoAssociation : public IPSecAssociation {
 public:
  NoAssociation(sd_event *event, Handlers handlers) : event_(event), handlers_(std::move(handlers)) {}
  void start(int) override {
    soon_ = EventSource::soon(event_, [this] { handlers_.up(); });
  }
  void stop() override {
    soon_ = EventSource::soon(event_, [this] { handlers_.stopped(); });
  }

 private:
  sd_event *event_;
  Handlers handlers_;
  EventSource soon_;
};

class Driver {
 public:
  Driver(sd_event *event, helper::PPPLog &log, const sockaddr_in &server, std::string user, std::string password)
      : event_(event), log_(log), user_(std::move(user)), password_(std::move(password)) {
    foundation::Value ipsec;
    ipsec.set("SharedSecret", "none");
    tunnel_ = std::make_unique<helper::L2TPTunnel>(
        event, server, ipsec, helper::EngineSettings::L2TP{}, log,
        helper::L2TPTunnel::Parts{[event](IPSecAssociation::Handlers handlers) {
                                    return std::make_unique<NoAssociation>(event, std::move(handlers));
                                  },
                                  std::make_unique<helper::KernelL2TPDataPath>()},
        helper::Tunnel::Handlers{.up =
                                     [this](foundation::FileDescriptor channel) {
                                       report("tunnel is up");
                                       daemon_.giveChannel(std::move(channel));
                                     },
                                 .failed = [this](const helper::TunnelFailure &failure) { end(failure.sentence); },
                                 .lost = [this](const helper::TunnelLoss &loss) { end(loss.sentence); },
                                 .stopped =
                                     [this] {
                                       report("tunnel is down");
                                       sd_event_exit(event_, wasUp_ ? 0 : 1);
                                     }});
  }

  bool start(const std::string &folder) {
    foundation::Value ppp;
    ppp.set("AuthName", user_);
    const helper::PPPSurroundings surroundings{.tunnelType = "L2TP",
                                               .pluginPath = helper::pluginPath(),
                                               .socketPath = folder + "/plugin",
                                               .logPath = log_.path(),
                                               .noScript = folder + "/none"};
    if (!daemon_.start(helper::pppOptions(ppp, surroundings), surroundings.socketPath, log_.path())) return false;
    tunnel_->start();
    return true;
  }

  void end(const std::string &why) {
    report(why);
    if (daemon_.running())
      daemon_.terminate(std::chrono::seconds(3));
    else
      tunnel_->stop();
  }

 private:
  void report(const std::string &what) const {
    const auto elapsed =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start_);
    std::printf("%6lld ms: %s\n", static_cast<long long>(elapsed.count()), what.c_str());
    std::fflush(stdout);
  }

  sd_event *event_;
  helper::PPPLog &log_;
  std::string user_;
  std::string password_;
  bool wasUp_ = false;
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  std::unique_ptr<helper::Tunnel> tunnel_;
  helper::PPPDaemon daemon_{
      event_, helper::PPPDaemon::Handlers{
                  .phase = [this](int phase) { report("pppd's phase " + std::to_string(phase)); },
                  .password = [this](const helper::Peer &) { return std::optional(foundation::Secret(password_)); },
                  .ipUp =
                      [this](const helper::PluginIPUp &up) {
                        wasUp_ = true;
                        report("IP is up on " + up.interface);
                      },
                  .ended =
                      [this](const helper::PPPEnd &end) {
                        report("pppd ended with " + std::to_string(end.code));
                        tunnel_->stop();
                      }}};
};

int signalled(sd_event_source *, const signalfd_siginfo *, void *context) {
  static_cast<Driver *>(context)->end("told to end");
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  sockaddr_in server{};
  server.sin_family = AF_INET;
  server.sin_port = htons(helper::L2TPSocket::kPort);
  if (argc != 4 || inet_pton(AF_INET, argv[1], &server.sin_addr) != 1) {
    std::fprintf(stderr, "usage: l2tp-driver SERVER USER PASSWORD\n");
    return 2;
  }
  auto log = helper::PPPLog::open();
  std::string folder = "/run/l2tp-driver.XXXXXX";
  sd_event *event = nullptr;
  sigset_t signals;
  sigemptyset(&signals);
  for (const int number : {SIGTERM, SIGUSR1}) sigaddset(&signals, number);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  if (!log || mkdtemp(folder.data()) == nullptr || sd_event_new(&event) < 0) return 2;
  int status = 2;
  {
    Driver driver(event, *log, server, argv[2], argv[3]);
    for (const int number : {SIGTERM, SIGUSR1})
      if (sd_event_add_signal(event, nullptr, number, signalled, &driver) < 0) return 2;
    if (driver.start(folder)) status = sd_event_loop(event);
  }
  std::filesystem::remove_all(folder);
  sd_event_unref(event);
  return status;
}
