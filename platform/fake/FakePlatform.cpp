#include "platform/fake/FakePlatform.h"

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "platform/SCErrorState.h"
#include "platform/fake/FakeRunLoop.h"
#include "platform/fake/FakeScript.h"

namespace platform::fake {

namespace {
constexpr std::chrono::milliseconds kSignalsStay{10};
}  // namespace

vpnctl::Value extendedStatus(std::int32_t phase, std::optional<std::int32_t> cause) {
  vpnctl::Value ppp;
  ppp.set("Status", phase);
  if (cause) ppp.set("LastCause", *cause);
  vpnctl::Value status;
  status.set("PPP", ppp);
  return status;
}

FakePlatform &FakePlatform::instance() {
  // Never destroyed: threads that outlive main may still record.
  static auto *const platform = new FakePlatform();
  return *platform;
}

FakePlatform::FakePlatform() {
  reset();
  if (const char *const path = std::getenv("VPNCTL_FAKE_PPP_LOG")) pppLogPath = path;
  if (const char *const path = std::getenv("VPNCTL_FAKE_SCRIPT")) readScript(path, *this);
  if (const char *const path = std::getenv("VPNCTL_FAKE_RECORD")) {
    recordFile_ = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (recordFile_ < 0) {
      std::perror(path);
      std::abort();
    }
  }
}

void FakePlatform::reset() {
  services.clear();
  hasCurrentSet = true;
  items.clear();
  statusBeforeStart = 0;
  extendedStatusBeforeStart = {};
  up.clear();
  down = {StatusChange{3, extendedStatus(9), 0, {}}, StatusChange{3, extendedStatus(10), 0, {}},
          StatusChange{0, extendedStatus(0, 5), 0, {}}};
  lastAuthorization.reset();
  pppLogPath = "/nonexistent/ppp.log";
  readingStatusClobbersError = false;
  setSCError(0);
  CFRunLoopGetCurrent()->clear();

  const std::lock_guard lock(mutex_);
  calls_.clear();
  failures_.clear();
  signals_.clear();
  serviceCount_ = 0;
}

void FakePlatform::fail(const std::string &call, std::int32_t code, int times, int after) {
  const std::lock_guard lock(mutex_);
  failures_[call] = {code, times, after};
}

void FakePlatform::raiseInside(const std::string &call, int signal) {
  const std::lock_guard lock(mutex_);
  signals_[call] = signal;
}

std::vector<std::string> FakePlatform::calls() const { return calls(""); }

std::vector<std::string> FakePlatform::calls(const std::string &prefix) const {
  const std::lock_guard lock(mutex_);
  std::vector<std::string> found;
  for (const std::string &call : calls_)
    if (call.starts_with(prefix)) found.push_back(call);
  return found;
}

std::optional<std::int32_t> FakePlatform::enter(const std::string &call, const std::string &arguments) {
  std::unique_lock lock(mutex_);
  calls_.push_back(call + "(" + arguments + ")");
  if (recordFile_ >= 0) {
    const std::string line = calls_.back() + "\n";
    if (write(recordFile_, line.data(), line.size()) != static_cast<ssize_t>(line.size())) std::abort();
  }
  for (const std::string &place : {call, std::to_string(calls_.size())}) {
    const auto signal = signals_.find(place);
    if (signal == signals_.end()) continue;
    kill(getpid(), signal->second);
    // What it sets off on other threads happens while this call goes on, not some calls later.
    lock.unlock();
    std::this_thread::sleep_for(kSignalsStay);
    lock.lock();
  }

  const auto failure = failures_.find(call);
  if (failure == failures_.end()) return std::nullopt;
  if (failure->second.after > 0) {
    --failure->second.after;
    return std::nullopt;
  }
  if (failure->second.times == 0) return std::nullopt;
  --failure->second.times;
  return failure->second.code;
}

std::string FakePlatform::nextServiceID() {
  const std::lock_guard lock(mutex_);
  char text[64];
  std::snprintf(text, sizeof text, "00000000-0000-4000-8000-%012d", ++serviceCount_);
  return text;
}

}  // namespace platform::fake
