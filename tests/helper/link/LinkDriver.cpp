// link-driver: one Link without the service around it, for trying the engine where there is a kernel with PPP.
//
//   link-driver [--log FILE] [--primary] [--no-encryption] SERVER USER PASSWORD
//
// Prints each status change with the milliseconds since the start. SIGUSR1 and SIGTERM stop the link; SIGINT destroys
// it as a lost tool would. Ends when the link is down: 0, or 1 when it never came up.

#include <signal.h>
#include <sys/resource.h>
#include <systemd/sd-event.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "helper/Peer.h"
#include "helper/link/Link.h"

namespace {

using foundation::Value;

class FixedSecret : public helper::SecretSource {
 public:
  explicit FixedSecret(std::string secret) : secret_(std::move(secret)) {}
  foundation::Result<foundation::Secret> secretForService(const std::string &service,
                                                          const helper::Peer &peer) override {
    if (service != "the-password" || !peer.runs("/usr/sbin/pppd"))
      return foundation::Error{"Driver", 0, "the wrong item or the wrong peer"};
    return foundation::Secret(secret_);
  }

 private:
  std::string secret_;
};

struct Run {
  sd_event *event = nullptr;
  std::unique_ptr<helper::Link> link;
  std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
  bool wasUp = false;
};

void report(Run &run, const helper::LinkStatus &status) {
  const auto elapsed =
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - run.start);
  const Value &ppp = status.extendedStatus["PPP"];
  std::printf("%6lld ms: status %d, phase %d, cause %d/%d %s %s\n", static_cast<long long>(elapsed.count()),
              status.status, ppp["Status"].intValue(), ppp["LastCause"].intValue(), ppp["DeviceLastCause"].intValue(),
              ppp["CommRemoteAddress"].string().c_str(),
              status.extendedStatus["IPv4"]["InterfaceName"].string().c_str());
  std::fflush(stdout);
  if (status.status == 2) run.wasUp = true;
  if (status.status == 0) sd_event_exit(run.event, run.wasUp ? 0 : 1);
}

int signalled(sd_event_source *, const signalfd_siginfo *info, void *context) {
  Run &run = *static_cast<Run *>(context);
  if (info->ssi_signo == SIGINT) {
    run.link.reset();
    return sd_event_exit(run.event, 0);
  }
  run.link->stop();
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  std::vector<std::string> arguments(argv + 1, argv + argc);
  std::string log = helper::PPPLog::kPath;
  bool primary = false;
  bool encryption = true;
  while (!arguments.empty() && arguments.front().starts_with("--")) {
    if (arguments.front() == "--primary") primary = true;
    if (arguments.front() == "--no-encryption") encryption = false;
    if (arguments.front() == "--log" && arguments.size() > 1) {
      log = arguments[1];
      arguments.erase(arguments.begin());
    }
    arguments.erase(arguments.begin());
  }
  if (arguments.size() != 3) {
    std::fprintf(stderr, "usage: link-driver [--log FILE] [--primary] [--no-encryption] SERVER USER PASSWORD\n");
    return 2;
  }
  auto pppLog = helper::PPPLog::open(log);
  if (!pppLog) {
    std::fprintf(stderr, "%s\n", pppLog.error().message.c_str());
    return 2;
  }
  helper::LinkConfiguration configuration;
  configuration.serviceID = "driver";
  configuration.tunnelType = "PPTP";
  configuration.ppp.set("AuthName", arguments[1]);
  configuration.ppp.set("AuthPassword", "the-password");
  configuration.ppp.set("CommRemoteAddress", arguments[0]);
  configuration.ppp.set("CCPEnabled", encryption ? 1 : 0);
  configuration.ipv4.set("OverridePrimary", primary ? 1 : 0);

  FixedSecret secrets(arguments[2]);
  Run run;
  sigset_t signals;
  sigemptyset(&signals);
  for (const int number : {SIGINT, SIGTERM, SIGUSR1}) sigaddset(&signals, number);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  if (sd_event_new(&run.event) < 0) return 2;
  for (const int number : {SIGINT, SIGTERM, SIGUSR1})
    if (sd_event_add_signal(run.event, nullptr, number, signalled, &run) < 0) return 2;
  helper::Link::repair(*pppLog);
  run.link = std::make_unique<helper::Link>(run.event, configuration, secrets, *pppLog,
                                            [&run](const helper::LinkStatus &status) { report(run, status); });
  run.link->start();
  const int status = sd_event_loop(run.event);
  run.link.reset();
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  std::printf("peak memory %ld KiB\n", usage.ru_maxrss);
  sd_event_unref(run.event);
  return status;
}
