// What platform/macos uses of kqueue(2), in words of our own, for a system that has none.

#pragma once

#include <stdint.h>
#include <time.h>

struct kevent {
  uintptr_t ident;
  int16_t filter;
  uint16_t flags;
  uint32_t fflags;
  intptr_t data;
  void *udata;
};

enum : int16_t { EVFILT_VNODE = -4 };
enum : uint16_t { EV_ADD = 0x0001, EV_CLEAR = 0x0020 };
enum : uint32_t { NOTE_WRITE = 0x00000002, NOTE_EXTEND = 0x00000004 };

extern "C" {

int kqueue();
int kevent(int queue, const struct kevent *changes, int changeCount, struct kevent *events, int eventCount,
           const struct timespec *timeout);

}  // extern "C"
