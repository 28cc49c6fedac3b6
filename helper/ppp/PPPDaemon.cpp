#include "helper/ppp/PPPDaemon.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "helper/ppp/PPPPIDFile.h"
#include "helper/ppp/PPPPhase.h"

namespace helper {

namespace {

template <class... F>
struct Overloaded : F... {
  using F::operator()...;
};
template <class... F>
Overloaded(F...) -> Overloaded<F...>;  // for compilers that do not deduce it by themselves yet

}  // namespace

PPPDaemon::PPPDaemon(sd_event *event, Handlers handlers, std::function<void(std::string_view)> log, std::string program)
    : event_(event),
      handlers_(std::move(handlers)),
      log_(std::move(log)),
      program_(std::move(program)),
      plugin_(event, PluginChannel::Handlers{.message = [this](const PluginMessage &message) { said(message); },
                                             // Whatever ended the conversation also ends pppd; its exit tells the rest.
                                             .closed =
                                                 [this](const vpnctl::Status &reason) {
                                                   if (!reason && process_) process_->signal(SIGTERM);
                                                 }}) {}

PPPDaemon::~PPPDaemon() = default;

vpnctl::Status PPPDaemon::start(const std::vector<std::string> &options, const std::string &socketPath) {
  if (auto listening = plugin_.listen(socketPath); !listening) return listening;
  std::vector<std::string> arguments{program_};
  arguments.insert(arguments.end(), options.begin(), options.end());
  // Not into the log itself: whoever rotates that would have to ask pppd to open it anew.
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) < 0) return vpnctl::errnoError(errno, "make a pipe for " + program_);
  output_.emplace(event_, vpnctl::FileDescriptor(ends[0]), log_);
  const vpnctl::FileDescriptor output(ends[1]);
  // Nothing of the caller's: no locale, no proxy, no preloaded library.
  auto process = linux::ChildProcess::spawn(arguments, {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C"},
                                            {.error = output.get()});
  if (!process) return process.error();
  process_.emplace(std::move(*process));
  plugin_.accepts(process_->pid(), program_);
  process_->watch(event_, [this](const linux::ChildProcess::End &end) { processEnded(end); });
  return {};
}

void PPPDaemon::said(const PluginMessage &message) {
  output_->drain();  // written before this was said, and read before what we say to it
  end_.reported = true;
  std::visit(Overloaded{
                 [this](const PluginNeedsChannel &) {
                   channelWanted_ = true;
                   handChannelOver();
                 },
                 [this](const PluginPhase &phase) {
                   end_.packetsReceived = phase.packetsReceived;
                   if (phase.phase <= kPhaseConnected) end_.furthestPhase = std::max(end_.furthestPhase, phase.phase);
                   handlers_.phase(phase.phase);
                 },
                 [this](const PluginNeedsPassword &) {
                   const Peer *peer = plugin_.peer();
                   // A plugin that cannot be answered takes its pppd down by itself.
                   static_cast<void>(plugin_.givePassword(peer ? handlers_.password(*peer) : std::nullopt));
                 },
                 [this](const PluginIPUp &up) { handlers_.ipUp(up); },
                 [this](const PluginExit &end) {
                   end_.packetsReceived = end.packetsReceived;
                   end_.dispute = end.dispute;
                   status_ = end.status;
                 },
             },
             message);
}

void PPPDaemon::giveChannel(TunnelChannel channel) {
  channel_ = std::move(channel);
  handChannelOver();
}

void PPPDaemon::handChannelOver() {
  if (!channelWanted_ || !channel_.socket) return;
  channelWanted_ = false;
  end_.carried = static_cast<bool>(plugin_.giveChannel(std::exchange(channel_, {})));
}

void PPPDaemon::terminate(std::chrono::milliseconds grace) {
  if (running()) process_->terminate(grace);
}

void PPPDaemon::hangUp(std::chrono::milliseconds grace) {
  plugin_.hangUp();
  end_.hungUp = true;
  if (running()) process_->killAfter(grace);
}

void PPPDaemon::closeNow(std::chrono::milliseconds deadline) {
  if (!running()) return;
  if (end_.carried)
    plugin_.hangUp();
  else
    process_->signal(SIGTERM);
  waitForEnd(deadline);
}

void PPPDaemon::waitForEnd(std::chrono::milliseconds deadline) {
  if (running() && !process_->waitFor(deadline)) {
    process_->signal(SIGKILL);
    process_->waitFor(deadline);
    removePIDFileOfPPPD(process_->pid());
  }
  if (output_) output_->finish();
}

void PPPDaemon::processEnded(const linux::ChildProcess::End &end) {
  // What it said at last still lies in the socket; exit and end-of-file come in any order.
  plugin_.drain();
  output_->finish();
  if (!end.exited) removePIDFileOfPPPD(process_->pid());
  end_.exited = end.exited;
  end_.code = end.exited ? status_.value_or(end.code) : end.code;
  handlers_.ended(end_);
}

}  // namespace helper
