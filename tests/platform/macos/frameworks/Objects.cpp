#include "tests/platform/macos/frameworks/Objects.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>

#include "tests/platform/macos/frameworks/Frameworks.h"

namespace frameworks {
namespace {

struct Entry {
  std::unique_ptr<Object> owned;  // none for a static one
  Object *object = nullptr;
  long count = 1;
};

struct Registry {
  std::recursive_mutex mutex;
  std::map<const void *, Entry> entries;

  Registry() { std::atexit(checkAtExit); }

  // A program that has given back too little says so with an exit status of its own. A handler that runs has the right
  // to what it holds.
  static void checkAtExit() {
    const std::vector<std::string> left = unbalanced(true);
    if (left.empty() || handlersRunning() > 0) return;
    for (const std::string &line : left) std::fprintf(stderr, "not given back: %s\n", line.c_str());
    std::fflush(stdout);
    _exit(98);
  }
};

Registry &registry() {
  static auto *const registry = new Registry();
  return *registry;
}

Entry &entryAt(const void *reference) {
  if (reference == nullptr) misuse("a null reference");
  const auto found = registry().entries.find(reference);
  if (found == registry().entries.end()) misuse("a reference to what is no object, or is none any more");
  return found->second;
}

}  // namespace

void misuse(const std::string &sentence) {
  std::fprintf(stderr, "misuse of the frameworks: %s\n", sentence.c_str());
  std::abort();
}

void *add(std::unique_ptr<Object> object) {
  const std::lock_guard lock(registry().mutex);
  Object *const reference = object.get();
  registry().entries[reference] = {std::move(object), reference};
  return reference;
}

void addStatic(Object &object) {
  const std::lock_guard lock(registry().mutex);
  registry().entries.try_emplace(&object, Entry{nullptr, &object});
}

void retain(const void *reference) {
  const std::lock_guard lock(registry().mutex);
  ++entryAt(reference).count;
}

void release(const void *reference) {
  std::unique_ptr<Object> freed;  // outside of the entries: it may let go of others
  const std::lock_guard lock(registry().mutex);
  Entry &entry = entryAt(reference);
  if (--entry.count > 0) return;
  if (!entry.owned) misuse("one release too many of a static " + entry.object->kind());
  freed = std::move(entry.owned);
  registry().entries.erase(reference);
}

Object &objectAt(const void *reference) {
  const std::lock_guard lock(registry().mutex);
  return *entryAt(reference).object;
}

std::vector<std::string> unbalanced(bool withRunLoops) {
  const std::lock_guard lock(registry().mutex);
  std::vector<std::string> lines;
  for (const auto &[reference, entry] : registry().entries) {
    if (!entry.object->isCounted() || (!withRunLoops && entry.object->kind() == "run loop")) continue;
    const long more = entry.owned ? entry.count : entry.count - 1;
    if (more > 0) lines.push_back(entry.object->kind() + ", " + std::to_string(more) + " times");
  }
  return lines;
}

}  // namespace frameworks
