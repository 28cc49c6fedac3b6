#include "companions/run/Run.h"

#include <utility>

namespace companions {

using std::chrono::milliseconds;
using vpnctl::Status;

namespace {

// vpnctl's helper has shorter deadlines of its own for each step of the way down.
constexpr std::chrono::seconds kGrace{25};
// pppd's lines reach vpnctl through the log, and may be a little behind its word that the connection stands.
constexpr std::chrono::seconds kAddressesDelay{1};

constexpr char kUpFailed[] = "The program of --up failed.";

}  // namespace

Run::Run(sd_event *event, RunOptions options, ToolConfiguration configuration, std::string tool,
         std::vector<std::string> environment, Reporter::Form form, std::function<double()> chance, Finished finished)
    : event_(event),
      options_(std::move(options)),
      configuration_(std::move(configuration)),
      toolPath_(std::move(tool)),
      environment_(std::move(environment)),
      policy_({.first = options_.reconnectPause, .attempts = options_.reconnectLimit}, std::move(chance)),
      finished_(std::move(finished)),
      reporter_(event, form, [this] {
        if (tool_ && !reporter_.isFull()) tool_->pause(false);
      }) {}

void Run::begin() { connect(); }

void Run::connect() {
  const std::string server = configuration_.server().value_or("");
  outcome_ = Outcome(server);
  upFailure_.reset();
  cameUp_ = false;
  reporter_.starting(configuration_.protocol().value_or(""), server);
  auto delivery = configuration_.deliver();
  if (!delivery)
    return finish(statusOf(Outcome::Kind::configuration), "vpnctl cannot be run: " + delivery.error().message);
  auto tool = ToolProcess::start(event_, toolPath_, delivery->path, environment_, delivery->input.get(),
                                 {.line = [this](std::string_view line) { heard(line); },
                                  .ended = [this](const linux::ChildProcess::End &end) { toolEnded(end); }});
  if (!tool) return finish(statusOf(Outcome::Kind::unknown), "vpnctl cannot be run: " + tool.error().message);
  tool_ = std::move(*tool);
  // Kept only for as long as another attempt may need them.
  if (!options_.reconnect || !delivery->input) configuration_.forgetSecrets();
}

void Run::heard(std::string_view line) {
  const bool wasConnected = outcome_.isConnected();
  const std::string_view text = line.substr(0, line.size() - (line.ends_with('\n') ? 1 : 0));
  const auto news = outcome_.hear(text);
  reporter_.line(line, news, outcome_);
  if (reporter_.isFull()) tool_->pause(true);
  if (!wasConnected && outcome_.isConnected() && !cameUp_)
    addresses_ = linux::EventSource::timer(event_, kAddressesDelay, [this] { comesUp(); });
  if (addresses_ && outcome_.hasAddresses()) comesUp();
}

void Run::comesUp() {
  addresses_.reset();
  if (isAsked_) return;
  cameUp_ = true;
  if (!options_.up) return isUp();
  upRuns_ = true;
  auto hook = Hook::start(event_, *options_.up, facts(false), options_.hookDeadline,
                          [this](const Status &status) { upEnded(status); });
  if (!hook) return upEnded(hook.error());
  hook_ = std::move(*hook);
}

void Run::upEnded(const Status &status) {
  // Not destroyed here: it is calling us.
  next_ = linux::EventSource::soon(event_, [this, status] {
    hook_.reset();
    upRuns_ = false;
    if (!status && !isAsked_) {
      upFailure_ = status.error().message;
      reporter_.complain("--up: " + *upFailure_ + "; disconnecting");
      if (tool_) tool_->stop(kGrace);
    } else if (outcome_.isConnected() && !isAsked_) {
      isUp();
    }
    if (!tool_) goDown();
  });
}

void Run::isUp() { reporter_.up(outcome_); }

void Run::interrupt() {
  if (isAsked_) {
    if (tool_) tool_->kill();
    if (hook_) hook_->kill();
    return;
  }
  isAsked_ = true;
  // What has ended already has its outcome, unless there was to be more.
  if (tool_ || options_.reconnect) outcome_.requested();
  reporter_.stopping();
  if (pause_) {
    pause_.reset();
    return finish(statusOf(Outcome::Kind::byRequest), std::string(sentenceOf(Outcome::Kind::byRequest)));
  }
  if (upRuns_ && hook_) hook_->stop();
  if (tool_) tool_->stop(kGrace);
}

void Run::toolEnded(const linux::ChildProcess::End &end) {
  addresses_.reset();
  outcome_.ended(end.exited, end.code);
  formerTool_ = std::move(tool_);
  reporter_.ended(outcome_);
  // With --up still running, its end goes on.
  if (!upRuns_) goDown();
}

void Run::goDown() {
  if (!options_.down || !cameUp_) {
    next_ = linux::EventSource::soon(event_, [this] { isDown(); });
    return;
  }
  const auto ended = [this](const Status &status) {
    next_ = linux::EventSource::soon(event_, [this, status] {
      hook_.reset();
      if (!status) reporter_.complain("--down: " + status.error().message);
      isDown();
    });
  };
  auto hook = Hook::start(event_, *options_.down, facts(true), options_.hookDeadline, ended);
  if (!hook) return ended(hook.error());
  hook_ = std::move(*hook);
}

void Run::isDown() {
  formerTool_.reset();
  const auto kind = outcome_.kind();
  if (upFailure_) return finish(kUpFailedStatus, kUpFailed);
  const auto pause = options_.reconnect && !isAsked_ ? policy_.pauseAfter(outcome_) : std::nullopt;
  if (!pause) return finish(statusOf(kind), std::string(sentenceOf(kind)));
  reporter_.waiting(*pause);
  pause_ = linux::EventSource::timer(event_, *pause, [this] {
    pause_.reset();
    connect();
  });
}

void Run::finish(int status, const std::string &sentence) {
  reporter_.finish(status, sentence);
  finished_(status);
}

std::vector<std::string> Run::facts(bool isOver) const {
  std::vector<std::string> result;
  for (const std::string &entry : environment_)
    if (!entry.starts_with("VPNCTL_")) result.push_back(entry);
  const auto add = [&result](const char *name, const std::string &value) {
    result.push_back(std::string(name) + "=" + value);
  };
  add("VPNCTL_EVENT", isOver ? "down" : "up");
  add("VPNCTL_PROTOCOL", configuration_.protocol().value_or(""));
  add("VPNCTL_SERVER", configuration_.server().value_or(""));
  add("VPNCTL_USERNAME", configuration_.username().value_or(""));
  add("VPNCTL_INTERFACE", outcome_.interface());
  add("VPNCTL_ADDRESS", outcome_.address());
  add("VPNCTL_PEER", outcome_.peer());
  if (!isOver) return result;
  const auto kind = outcome_.kind();
  add("VPNCTL_CAUSE", outcome_.cause() ? std::to_string(*outcome_.cause()) : "");
  add("VPNCTL_OUTCOME", std::string(nameOf(kind)));
  add("VPNCTL_SENTENCE", outcome_.sentence().empty() ? std::string(sentenceOf(kind)) : outcome_.sentence());
  return result;
}

}  // namespace companions
