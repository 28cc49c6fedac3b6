// One count of a CoreFoundation object (the keychain's and the network's are such, too), given back when this dies.
//
// Thread rule: as a plain value; the counts themselves may be changed on any thread.

#pragma once

#include <utility>

#include "platform/macos/Frameworks.h"

namespace platform::macos {

template <class Reference>
class CFObject {
 public:
  CFObject() = default;
  // Takes over the count that comes with the result of a "Create" or "Copy" function. Null is none.
  static CFObject owned(Reference reference) {
    CFObject object;
    object.reference_ = reference;
    return object;
  }
  // Adds a count to what somebody else owns: the result of a "Get" function. Null is none.
  static CFObject retained(Reference reference) {
    if (reference != nullptr) ::CFRetain(reference);
    return owned(reference);
  }
  CFObject(CFObject &&other) noexcept : reference_(other.release()) {}
  CFObject &operator=(CFObject &&other) noexcept {
    std::swap(reference_, other.reference_);
    return *this;
  }
  ~CFObject() {
    if (reference_ != nullptr) ::CFRelease(reference_);
  }

  // The count stays here.
  Reference get() const { return reference_; }
  // The count goes to the caller.
  Reference release() { return std::exchange(reference_, nullptr); }
  explicit operator bool() const { return reference_ != nullptr; }

 private:
  Reference reference_ = nullptr;
};

}  // namespace platform::macos
