#include "tests/support/ScriptedLink.h"

#include <unistd.h>

#include <cerrno>
#include <deque>
#include <system_error>
#include <utility>

#include "linux/EventSource.h"

namespace helper::testing {

using vpnctl::Value;

namespace {

std::int32_t statusOfPhase(int phase) {
  if (phase == 8) return 2;
  if (phase == 9 || phase == 10) return 3;
  return phase == 0 ? 0 : 1;
}

class ScriptedLink : public Link {
 public:
  ScriptedLink(sd_event *event, std::string script, Link::StatusHandler handler)
      : event_(event), script_(std::move(script)), handler_(std::move(handler)) {}
  ScriptedLink(const ScriptedLink &) = delete;
  ScriptedLink &operator=(const ScriptedLink &) = delete;

  void start() override {
    started_ = true;
    if (script_ == "throws") throwNoDescriptor();
    if (script_ == "throws-later") {
      later_ = linux::EventSource::soon(event_, throwNoDescriptor);
      return;
    }
    if (stopped_) return play({1, 10, 0}, 5);
    if (script_ == "refused") return play({1, 2, 4, 5, 9, 10, 0}, 19);
    if (script_ == "at-once") {
      for (const int phase : {1, 2, 4, 5, 7, 8}) tell(phase);
      return;
    }
    play({1, 2, 4, 5, 7, 8}, 0);
  }

  void stop() override {
    if (stopped_) return;
    stopped_ = true;
    if (started_ && script_ != "stuck") play({9, 10, 0}, 5);
  }

  const LinkStatus &status() const override { return status_; }
  bool isDown() const override { return down_; }

 private:
  [[noreturn]] static void throwNoDescriptor() { throw std::system_error(EMFILE, std::generic_category(), "test"); }

  void play(std::deque<int> phases, int cause) {
    phases_ = std::move(phases);
    cause_ = cause;
    turn_ = linux::EventSource::soon(event_, [this] { turn(); });
  }

  void turn() {
    const int phase = phases_.front();
    phases_.pop_front();
    if (!phases_.empty()) turn_ = linux::EventSource::soon(event_, [this] { turn(); });
    tell(phase);
    if (phase == 8 && script_ == "dies") ::_exit(1);
    if (phase == 0) down_ = true;
  }

  void tell(int phase) {
    Value ppp = Value::Dictionary{{"Status", phase}};
    if (phase == 0) ppp.set("LastCause", cause_);
    status_ = {statusOfPhase(phase), 0, Value::Dictionary{{"PPP", ppp}}};
    handler_(status_);
  }

  sd_event *event_;
  std::string script_;
  Link::StatusHandler handler_;
  linux::EventSource turn_;
  linux::EventSource later_;
  std::deque<int> phases_;
  int cause_ = 0;
  bool started_ = false;
  bool stopped_ = false;
  bool down_ = false;
  LinkStatus status_;
};

}  // namespace

LinkFactory scriptedLinks(sd_event *event) {
  return [event](const Value &preferences, const LinkRequest &request,
                 Link::StatusHandler handler) -> vpnctl::Result<std::unique_ptr<Link>> {
    const Value *laidOver = request.startOptions["PPP"].find("CommRemoteAddress");
    const std::string &script =
        (laidOver != nullptr ? *laidOver
                             : preferences["NetworkServices"][request.serviceID]["PPP"]["CommRemoteAddress"])
            .string();
    for (const char *known : {"up", "at-once", "refused", "dies", "stuck", "throws", "throws-later"})
      if (script == known)
        return std::unique_ptr<Link>(std::make_unique<ScriptedLink>(event, script, std::move(handler)));
    return vpnctl::Error{"Test", 1, "there is no service " + request.serviceID};
  };
}

}  // namespace helper::testing
