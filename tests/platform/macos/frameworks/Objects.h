// The objects of the small frameworks: counted, and known one by one, so that whatever is done to one that is none (any
// more), or is another kind, ends the process with a sentence.
//
// Thread rule: any thread.

#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace frameworks {

struct Object {
  Object() = default;
  Object(const Object &) = delete;
  Object &operator=(const Object &) = delete;
  virtual ~Object() = default;
  // Of CFGetTypeID; 0 for what a property list does not hold.
  virtual CFTypeID typeID() const { return 0; }
  // False for what CFRetain and CFRelease must not be given.
  virtual bool isCounted() const { return true; }
  virtual std::string kind() const = 0;
};

// Prints the sentence and aborts.
[[noreturn]] void misuse(const std::string &sentence);

// OBJECT with one count, which is the caller's.
void *add(std::unique_ptr<Object> object);
// One that is there for good, and is not to be freed; once is enough.
void addStatic(Object &object);

void retain(const void *reference);
void release(const void *reference);

// A misuse when it is none, or is none of ours.
Object &objectAt(const void *reference);

template <class Kind>
Kind &as(const void *reference) {
  auto *const object = dynamic_cast<Kind *>(&objectAt(reference));
  if (object == nullptr) misuse("a " + objectAt(reference).kind() + " is taken for something else");
  return *object;
}

template <class Reference, class Kind, class... Arguments>
Reference make(Arguments &&...arguments) {
  return static_cast<Reference>(add(std::make_unique<Kind>(std::forward<Arguments>(arguments)...)));
}

// What a "Get" function gives: it lives as long as its owner, or until there is another.
class Kept {
 public:
  Kept() = default;
  Kept(const Kept &) = delete;
  Kept &operator=(const Kept &) = delete;
  ~Kept() { keep(nullptr); }
  const void *keep(const void *reference) {
    if (reference_ != nullptr) release(reference_);
    return reference_ = reference;
  }

 private:
  const void *reference_ = nullptr;
};

// What has more counts than its framework gave it, one line per object. Run loops that threads have got are not among
// them while WITH_RUN_LOOPS is false: a thread keeps its own.
std::vector<std::string> unbalanced(bool withRunLoops);

}  // namespace frameworks
