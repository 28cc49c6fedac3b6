// Owners of what sd-bus and sd-event hand out: each gives its own back.
//
// Usual sequence: Bus bus; sd_bus_new(Out(bus)); sd_bus_message_new_signal(bus.get(), Out(message), ...). Thread rule:
// sd-bus's and sd-event's, one thread for each bus and loop.

#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <memory>

namespace linux {

template <class Object, Object *(*giveBack)(Object *)>
struct GivesBack {
  void operator()(Object *object) const { giveBack(object); }
};

// Closes the connection at once: what is still queued is lost.
using Bus = std::unique_ptr<sd_bus, GivesBack<sd_bus, sd_bus_close_unref>>;
using BusMessage = std::unique_ptr<sd_bus_message, GivesBack<sd_bus_message, sd_bus_message_unref>>;
using BusSlot = std::unique_ptr<sd_bus_slot, GivesBack<sd_bus_slot, sd_bus_slot_unref>>;
using EventLoop = std::unique_ptr<sd_event, GivesBack<sd_event, sd_event_unref>>;

// The argument for a C function that hands its result out by pointer, which OWNER takes over at the end of the whole
// expression that calls it; empty when the function has left it alone.
template <class Owner>
class Out {
 public:
  explicit Out(Owner &owner) : owner_(owner) {}
  Out(const Out &) = delete;
  Out &operator=(const Out &) = delete;
  ~Out() { owner_.reset(result_); }
  operator typename Owner::pointer *() { return &result_; }

 private:
  Owner &owner_;
  typename Owner::pointer result_ = nullptr;
};

}  // namespace linux
