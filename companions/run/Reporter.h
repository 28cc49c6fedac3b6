// Tells what goes on to whoever wants to know: vpnctl's lines on standard error or events in JSON on standard output, a
// line of progress, and systemd. Never a secret: it is given none.
//
// Usual sequence: one for the whole run; finish() at its end. Thread rule: the thread of the event loop. Only finish()
// blocks.

#pragma once

#include <systemd/sd-event.h>

#include <chrono>
#include <functional>
#include <string>
#include <string_view>

#include "companions/run/Outcome.h"
#include "companions/run/Progress.h"
#include "companions/run/TextOutput.h"

namespace companions {

class Reporter {
 public:
  struct Form {
    bool json = false;
    Progress::Form progress = Progress::Form::none;
  };

  // READY: whether more can be told without waiting for whoever reads; called when it changes from no to yes.
  Reporter(sd_event *event, Form form, std::function<void()> ready);

  bool isFull() const { return out_.isFull() || error_.isFull(); }

  // A run of vpnctl begins.
  void starting(std::string_view protocol, std::string_view server);
  // LINE of vpnctl's with its newline, if it has one, and what OUTCOME says of it.
  void line(std::string_view line, const Outcome::News &news, const Outcome &outcome);
  // The connection is up, with all that was to be done for it.
  void up(const Outcome &outcome);
  void stopping();
  void ended(const Outcome &outcome);
  void waiting(std::chrono::milliseconds pause);
  // Something that went wrong here, not in vpnctl. TEXT is a sentence part.
  void complain(const std::string &text);
  // How all of it ended, in one sentence.
  void finish(int status, std::string_view sentence);

 private:
  void ourLine(std::string_view text);

  Form form_;
  TextOutput out_;
  TextOutput error_;
  Progress progress_;
  std::string server_;
};

}  // namespace companions
