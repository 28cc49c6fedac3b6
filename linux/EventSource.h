// What this room needs of sd-event, with owners: a descriptor or a folder to watch, a timer, something to do in the
// next turn.
//
// A handler may reset or replace its own EventSource. One that throws ends the loop, see endLoopOnException(). Thread
// rule: the loop's thread.

#pragma once

#include <systemd/sd-event.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace linux {

// Runs HANDLER. An exception ends here, since no C library may meet one, and with it EVENT's loop: whoever ran the loop
// gets an errno from it and takes everything down in order. Whatever a C library calls back runs in this.
void endLoopOnException(sd_event *event, const std::function<void()> &handler);

class EventSource {
 public:
  EventSource() = default;  // none
  EventSource(EventSource &&other) noexcept = default;
  EventSource &operator=(EventSource &&other) noexcept;
  ~EventSource() { reset(); }

  // HANDLER gets the EPOLL... events. The descriptor stays the caller's and must outlive the source.
  static EventSource io(sd_event *event, int fd, std::uint32_t events, std::function<void(std::uint32_t)> handler);
  // HANDLER gets the name of what appeared in FOLDER, went, or was closed by a writer; an empty one when some of that
  // may have been missed.
  static EventSource folder(sd_event *event, const std::string &folder,
                            std::function<void(const std::string &name)> handler);
  // Once, after DELAY.
  static EventSource timer(sd_event *event, std::chrono::milliseconds delay, std::function<void()> handler);
  // Once, in the loop's next turn.
  static EventSource soon(sd_event *event, std::function<void()> handler);
  // Once, when the loop is told to exit, before what has the usual priority.
  static EventSource atExit(sd_event *event, std::function<void()> handler);

  explicit operator bool() const { return state_ != nullptr; }
  // Changes what an io source waits for.
  void setEvents(std::uint32_t events);
  // From here on the loop does not know it, also while its handler still runs: a descriptor may be closed at once, and
  // its number may come back as another's.
  void reset();

 private:
  struct State;
  explicit EventSource(std::shared_ptr<State> state) : state_(std::move(state)) {}
  static int ioReady(sd_event_source *source, int fd, std::uint32_t events, void *context);
  static int timeReached(sd_event_source *source, std::uint64_t now, void *context);
  static int turnCame(sd_event_source *source, void *context);
  static int nameStirred(sd_event_source *source, const inotify_event *stir, void *context);

  std::shared_ptr<State> state_;
};

}  // namespace linux
