// Owners of OpenSSL's objects, and what becomes of its failures.

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

// std::runtime_error unless DONE. WHAT is the work of which it is a part.
inline void must(bool done, const char *what) {
  if (!done) throw std::runtime_error(what);
}
template <class Owner>
Owner made(Owner owner, const char *what) {
  must(owner != nullptr, what);
  return owner;
}

// Looks something up that is looked up again where it is needed, if that fails.
template <class LookUp>
void tryNow(const LookUp &lookUp) {
  try {
    lookUp();
  } catch (const std::runtime_error &) {
  }
}

}  // namespace helper::isakmp
