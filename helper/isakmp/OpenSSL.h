// How OpenSSL's objects are owned here.

#pragma once

#include <memory>
#include <stdexcept>

namespace helper::isakmp {

template <auto release>
struct Releaser {
  template <class T>
  void operator()(T *object) const {
    release(object);
  }
};
template <class T, auto release>
using Owned = std::unique_ptr<T, Releaser<release>>;

// What it can only fail in for lack of memory. WHAT: of which work that is a part.
inline void must(bool done, const char *what) {
  if (!done) throw std::runtime_error(what);
}
template <class Owner>
Owner made(Owner owner, const char *what) {
  must(owner != nullptr, what);
  return owner;
}

}  // namespace helper::isakmp
