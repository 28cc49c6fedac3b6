#include "companions/run/Reporter.h"

#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>

#include "companions/common/JSONLine.h"

namespace companions {

namespace {

constexpr std::chrono::seconds kLastWords{5};

JSONLine event(std::string_view name) {
  JSONLine line;
  line.add("time", timeStamp()).add("event", name);
  return line;
}

// Nobody listens where the program is no service.
void tellSystemd(const std::string &state) { static_cast<void>(::sd_notify(0, state.c_str())); }

std::string seconds(std::chrono::milliseconds time) {
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%.1f s", static_cast<double>(time.count()) / 1000);
  return text.data();
}

}  // namespace

Reporter::Reporter(sd_event *event, Form form, std::function<void()> ready)
    : form_(form),
      out_(event, STDOUT_FILENO, ready),
      error_(event, STDERR_FILENO, ready),
      progress_(error_, form.json ? Progress::Form::none : form.progress) {}

void Reporter::starting(std::string_view protocol, std::string_view server) {
  server_ = server.empty() ? "the server" : server;
  // The configuration may say anything; for systemd a newline begins another assignment.
  std::replace_if(
      server_.begin(), server_.end(), [](char c) { return static_cast<unsigned char>(c) < ' '; }, '?');
  if (form_.json) out_.write(event("start").addIfAny("protocol", protocol).addIfAny("server", server).line());
  tellSystemd("STATUS=Connecting to " + server_);
  progress_.show("Connecting to " + server_);
}

void Reporter::line(std::string_view line, const Outcome::News &news, const Outcome &outcome) {
  using Type = Outcome::News::Type;
  if (!form_.json) {
    progress_.clear();
    error_.write(line);
    progress_.again();
  } else {
    switch (news.type) {
      case Type::phase:
        out_.write(event("phase").add("phase", news.phase).add("sentence", news.text).line());
        break;
      case Type::error: {
        JSONLine json = event("error").add("sentence", news.text);
        if (outcome.cause()) json.add("cause", *outcome.cause());
        out_.write(json.line());
        break;
      }
      case Type::address:
        out_.write(event("address")
                       .addIfAny("interface", outcome.interface())
                       .addIfAny("address", outcome.address())
                       .addIfAny("peer", outcome.peer())
                       .line());
        break;
      case Type::sentence:
        out_.write(event("log").add("sentence", news.text).line());
        break;
      case Type::line:
        out_.write(event("line").add("sentence", news.text).line());
        break;
    }
  }
  if (news.type != Type::phase) return;
  tellSystemd("STATUS=" + news.text);
  progress_.show(server_ + ": " + news.text);
}

void Reporter::up(const Outcome &outcome) {
  const std::string place = outcome.address().empty() ? "" : " as " + outcome.address();
  if (form_.json)
    out_.write(event("up")
                   .addIfAny("interface", outcome.interface())
                   .addIfAny("address", outcome.address())
                   .addIfAny("peer", outcome.peer())
                   .line());
  tellSystemd("READY=1\nSTATUS=Connected to " + server_ + place);
  progress_.show("Connected to " + server_ + place);
}

void Reporter::stopping() {
  tellSystemd("STOPPING=1\nSTATUS=Disconnecting from " + server_);
  progress_.show("Disconnecting from " + server_);
}

void Reporter::ended(const Outcome &outcome) {
  const auto kind = outcome.kind();
  if (form_.json) {
    JSONLine json = event("end").add("outcome", nameOf(kind)).add("status", statusOf(kind));
    if (outcome.cause()) json.add("cause", *outcome.cause());
    out_.write(json.add("sentence", outcome.sentence().empty() ? sentenceOf(kind) : outcome.sentence()).line());
  }
  tellSystemd("STATUS=" + std::string(sentenceOf(kind)));
}

void Reporter::waiting(std::chrono::milliseconds pause) {
  if (form_.json) out_.write(event("pause").add("milliseconds", pause.count()).line());
  tellSystemd("STATUS=Connecting again in " + seconds(pause));
  if (form_.progress == Progress::Form::none) ourLine("Connecting again in " + seconds(pause) + ".");
  progress_.show("Connecting again in " + seconds(pause));
}

void Reporter::complain(const std::string &text) {
  if (form_.json) out_.write(event("trouble").add("sentence", text).line());
  ourLine(text);
}

void Reporter::finish(int status, std::string_view sentence) {
  progress_.end();
  tellSystemd("STOPPING=1\nSTATUS=" + std::string(sentence));
  if (form_.json) out_.write(event("exit").add("status", status).add("sentence", sentence).line());
  if (status != 0) ourLine(std::string(sentence) + " (status " + std::to_string(status) + ")");
  out_.flush(kLastWords);
  error_.flush(kLastWords);
}

void Reporter::ourLine(std::string_view text) {
  if (form_.json) return;
  progress_.clear();
  if (!error_.isAtLineStart()) error_.write("\n");
  error_.write("vpnctl-run: " + std::string(text) + "\n");
  progress_.again();
}

}  // namespace companions
