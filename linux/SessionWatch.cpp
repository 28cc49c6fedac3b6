#include "linux/SessionWatch.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <string>
#include <string_view>
#include <utility>

namespace linux {

using vpnctl::FileDescriptor;

namespace {

// What one of sd-login's functions has allocated.
class LoginText {
 public:
  LoginText() = default;
  LoginText(const LoginText &) = delete;
  LoginText &operator=(const LoginText &) = delete;
  ~LoginText() { std::free(text_); }
  operator char **() { return &text_; }
  std::string_view get() const { return text_ == nullptr ? "" : text_; }

 private:
  char *text_ = nullptr;
};

bool isSessionOver(const std::string &session) {
  LoginText state;
  return sd_session_get_state(session.c_str(), state) < 0 || state.get() == "closing";
}

bool isUserGone(uid_t user) {
  LoginText state;
  return sd_uid_get_state(user, state) < 0 || (state.get() != "online" && state.get() != "active");
}

// Whether somebody has logged out, and what of logind's must be watched for that: one of its categories, since not
// every machine has all of them.
struct Login {
  SessionWatch::Source isOver;  // empty: nobody could log out
  const char *category = nullptr;
};

Login loginOf(pid_t process) {
  LoginText session;
  uid_t user = 0;
  if (sd_pid_get_session(process, session) >= 0)
    return {[name = std::string(session.get())] { return isSessionOver(name); }, "session"};
  if (sd_pid_get_owner_uid(process, &user) >= 0) return {[user] { return isUserGone(user); }, "uid"};
  return {};
}

// A descriptor of our own, since the monitor closes its with itself: both see the same changes.
FileDescriptor changesIn(const char *category) {
  using Monitor = std::unique_ptr<sd_login_monitor, GivesBack<sd_login_monitor, sd_login_monitor_unref>>;
  Monitor monitor;
  if (sd_login_monitor_new(category, Out(monitor)) < 0) return {};
  return FileDescriptor(::fcntl(sd_login_monitor_get_fd(monitor.get()), F_DUPFD_CLOEXEC, 0));
}

}  // namespace

SessionWatch::SessionWatch(sd_event *event, pid_t process, Handler handler) : handler_(std::move(handler)) {
  Login login = loginOf(process);
  if (!login.isOver || login.isOver()) return;
  isOver_ = std::move(login.isOver);
  changes_ = changesIn(login.category);
  watch(event);
}

SessionWatch::SessionWatch(sd_event *event, Handler handler, Source source, FileDescriptor changes)
    : handler_(std::move(handler)), isOver_(std::move(source)), changes_(std::move(changes)) {
  watch(event);
}

void SessionWatch::watch(sd_event *event) {
  if (!changes_) return;
  io_ = EventSource::io(event, changes_.get(), EPOLLIN, [this](std::uint32_t) { look(); });
}

void SessionWatch::look() {
  std::array<char, 4096> changes{};
  static_cast<void>(!::read(changes_.get(), changes.data(), changes.size()));
  if (!isOver_()) return;
  io_.reset();
  const Handler handler = std::exchange(handler_, nullptr);
  handler();
}

}  // namespace linux
