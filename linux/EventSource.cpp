#include "linux/EventSource.h"

#include <sys/inotify.h>

#include <cerrno>
#include <ctime>
#include <new>
#include <system_error>
#include <utility>

namespace linux {

void endLoopOnException(sd_event *event, const std::function<void()> &handler) {
  int reason = ENOTRECOVERABLE;
  try {
    return handler();
  } catch (const std::system_error &error) {
    if (error.code().value() > 0) reason = error.code().value();
  } catch (const std::bad_alloc &) {
    reason = ENOMEM;
  } catch (...) {  // whatever it is, it must not go further
  }
  sd_event_exit(event, reason);
}

struct EventSource::State : std::enable_shared_from_this<EventSource::State> {
  State() = default;
  State(const State &) = delete;
  State &operator=(const State &) = delete;
  ~State() { sd_event_source_disable_unref(source); }

  // Without room for an event source there is nothing the caller could do either; its loop ends.
  static void check(int result) {
    if (result < 0) throw std::system_error(-result, std::generic_category(), "add event source");
  }

  sd_event_source *source = nullptr;
  std::function<void(std::uint32_t)> handler;
  std::function<void(const std::string &)> nameHandler;
};

// The copy of the pointer keeps the handler alive while it runs, whatever it does to its source.
int EventSource::ioReady(sd_event_source *, int, std::uint32_t events, void *context) {
  std::shared_ptr<State> state = static_cast<State *>(context)->shared_from_this();
  endLoopOnException(sd_event_source_get_event(state->source), [&] { state->handler(events); });
  return 0;
}

int EventSource::timeReached(sd_event_source *, std::uint64_t, void *context) { return turnCame(nullptr, context); }

int EventSource::turnCame(sd_event_source *, void *context) { return ioReady(nullptr, -1, 0, context); }

int EventSource::nameStirred(sd_event_source *, const inotify_event *stir, void *context) {
  std::shared_ptr<State> state = static_cast<State *>(context)->shared_from_this();
  endLoopOnException(sd_event_source_get_event(state->source),
                     [&] { state->nameHandler(stir->len > 0 ? stir->name : ""); });
  return 0;
}

EventSource EventSource::io(sd_event *event, int fd, std::uint32_t events, std::function<void(std::uint32_t)> handler) {
  auto state = std::make_shared<State>();
  state->handler = std::move(handler);
  State::check(sd_event_add_io(event, &state->source, fd, events, ioReady, state.get()));
  return EventSource(std::move(state));
}

EventSource EventSource::folder(sd_event *event, const std::string &folder,
                                std::function<void(const std::string &)> handler) {
  auto state = std::make_shared<State>();
  state->nameHandler = std::move(handler);
  constexpr std::uint32_t kStirs =
      IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_CLOSE_WRITE | IN_ONLYDIR | IN_EXCL_UNLINK;
  State::check(sd_event_add_inotify(event, &state->source, folder.c_str(), kStirs, nameStirred, state.get()));
  return EventSource(std::move(state));
}

EventSource EventSource::timer(sd_event *event, std::chrono::milliseconds delay, std::function<void()> handler) {
  auto state = std::make_shared<State>();
  state->handler = [handler = std::move(handler)](std::uint32_t) { handler(); };
  const auto microseconds = static_cast<std::uint64_t>(std::chrono::microseconds(delay).count());
  State::check(
      sd_event_add_time_relative(event, &state->source, CLOCK_MONOTONIC, microseconds, 1, timeReached, state.get()));
  return EventSource(std::move(state));
}

EventSource EventSource::soon(sd_event *event, std::function<void()> handler) {
  auto state = std::make_shared<State>();
  state->handler = [handler = std::move(handler)](std::uint32_t) { handler(); };
  State::check(sd_event_add_defer(event, &state->source, turnCame, state.get()));
  return EventSource(std::move(state));
}

EventSource EventSource::atExit(sd_event *event, std::function<void()> handler) {
  auto state = std::make_shared<State>();
  state->handler = [handler = std::move(handler)](std::uint32_t) { handler(); };
  State::check(sd_event_add_exit(event, &state->source, turnCame, state.get()));
  State::check(sd_event_source_set_priority(state->source, SD_EVENT_PRIORITY_IMPORTANT));
  return EventSource(std::move(state));
}

EventSource &EventSource::operator=(EventSource &&other) noexcept {
  if (this != &other) {
    reset();
    state_ = std::move(other.state_);
  }
  return *this;
}

void EventSource::reset() {
  // A loop that has finished has forgotten it anyway.
  if (state_) sd_event_source_set_enabled(state_->source, SD_EVENT_OFF);
  state_.reset();
}

void EventSource::setEvents(std::uint32_t events) {
  if (state_) State::check(sd_event_source_set_io_events(state_->source, events));
}

}  // namespace linux
