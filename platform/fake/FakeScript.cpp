#include "platform/fake/FakeScript.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace platform::fake {
namespace {

class Line {
 public:
  Line(std::string path, int number, const std::string &text) : path_(std::move(path)), number_(number), words_(text) {}

  [[noreturn]] void refuse() const {
    std::fprintf(stderr, "%s:%d: not an instruction\n", path_.c_str(), number_);
    std::_Exit(97);
  }
  // The next word; empty at the end.
  std::string word() {
    std::string next;
    words_ >> next;
    return next;
  }
  std::string rest() {
    std::string text;
    std::getline(words_ >> std::ws, text);
    return text;
  }
  std::int32_t number(const std::string &text) const {
    char *end = nullptr;
    const long value = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0') refuse();
    return static_cast<std::int32_t>(value);
  }
  std::int32_t number() { return number(word()); }

 private:
  std::string path_;
  int number_;
  std::istringstream words_;
};

StatusChange readChange(Line &line) {
  StatusChange change;
  change.status = line.number();
  vpnctl::Value ppp{vpnctl::Value::Dictionary{}};
  bool absent = false;
  bool none = true;
  for (std::string word = line.word(); !word.empty(); word = line.word()) {
    const std::size_t equals = word.find('=');
    if (equals == std::string::npos) line.refuse();
    const std::string key = word.substr(0, equals);
    const std::string value = word.substr(equals + 1);
    if (key == "ppp" && value == "none") {
      none = true;
    } else if (key == "ppp" && value == "absent") {
      none = false;
      absent = true;
    } else if (key == "ppp" && value == "text") {
      none = false;
      ppp = "text";
    } else if (key == "ppp") {
      none = false;
      ppp.set("Status", line.number(value));
    } else if (key == "cause") {
      none = false;
      ppp.set("LastCause", line.number(value));
    } else if (key == "error") {
      change.error = line.number(value);
    } else if (key == "argument") {
      change.argument = line.number(value);
    } else {
      line.refuse();
    }
  }
  if (none) return change;
  change.extendedStatus = vpnctl::Value::Dictionary{};
  if (!absent) change.extendedStatus.set("PPP", ppp);
  return change;
}

Step readStep(Line &line) {
  const std::string kind = line.word();
  if (kind == "status") return readChange(line);
  if (kind == "log") return LogText{line.rest() + "\n"};
  if (kind == "raise") return Raise{line.number()};
  line.refuse();
}

void readFailure(Line &line, FakePlatform &platform) {
  const std::string call = line.word();
  const std::int32_t code = line.number();
  int times = 1 << 30;
  int after = 0;
  for (std::string word = line.word(); !word.empty(); word = line.word())
    if (word.starts_with("times="))
      times = line.number(word.substr(6));
    else if (word.starts_with("after="))
      after = line.number(word.substr(6));
    else
      line.refuse();
  platform.fail(call, code, times, after);
}

void readService(Line &line, FakePlatform &platform) {
  Service service;
  service.serviceID = platform.nextServiceID();
  if (const std::string name = line.rest(); !name.empty()) service.name = name;
  service.layers = {"PPP", "PPTP", "IPv4"};
  service.inCurrentSet = true;
  platform.services.push_back(service);
}

}  // namespace

void readScript(const std::string &path, FakePlatform &platform) {
  std::ifstream file(path);
  if (!file) Line(path, 0, "").refuse();
  bool usualEnd = true;
  std::string text;
  for (int number = 1; std::getline(file, text); ++number) {
    Line line(path, number, text);
    const std::string instruction = line.word();
    if (instruction.empty() || instruction.starts_with('#')) {
      continue;
    } else if (instruction == "fail") {
      readFailure(line, platform);
    } else if (instruction == "raise") {
      const std::string call = line.word();
      platform.raiseInside(call, line.number());
    } else if (instruction == "service") {
      readService(line, platform);
    } else if (instruction == "no-current-set") {
      platform.hasCurrentSet = false;
    } else if (instruction == "item") {
      KeychainItem item;
      item.label = line.word();
      item.service = line.word();
      item.account = line.word();
      platform.items.push_back(item);
    } else if (instruction == "status") {
      const StatusChange change = readChange(line);
      platform.statusBeforeStart = change.status;
      platform.extendedStatusBeforeStart = change.extendedStatus;
    } else if (instruction == "up") {
      platform.up.push_back(readStep(line));
    } else if (instruction == "down") {
      if (usualEnd) platform.down.clear();
      usualEnd = false;
      platform.down.push_back(readStep(line));
    } else if (instruction == "clobber-error") {
      platform.readingStatusClobbersError = true;
    } else {
      line.refuse();
    }
  }
}

}  // namespace platform::fake
