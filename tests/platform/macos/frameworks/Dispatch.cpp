#include <dispatch/dispatch.h>
// Macros, and names of what stands behind.
#undef DISPATCH_SOURCE_TYPE_SIGNAL
#undef DISPATCH_QUEUE_PRIORITY_DEFAULT

#include <atomic>
#include <mutex>

#include "tests/platform/macos/frameworks/Behind.h"
#include "tests/platform/macos/frameworks/Frameworks.h"
#include "tests/platform/macos/frameworks/Objects.h"

struct dispatch_source_type_s {
  int unused;
};

namespace frameworks {
namespace {

std::mutex callsMutex;
// Never destroyed: a queue's thread may still let go of what it holds while the process is on its way out.
std::vector<std::string> &calls = *new std::vector<std::string>();
std::atomic<int> running = 0;

void record(const std::string &call) {
  const std::lock_guard lock(callsMutex);
  calls.push_back(call);
}

struct Queue : Object {
  explicit Queue(behind::dispatch_queue_t theirs) : it(std::move(theirs)) {}
  bool isCounted() const override { return false; }
  std::string kind() const override { return "queue"; }
  const behind::dispatch_queue_t it;
};

// What a source and a run of its handler share. The finalizer runs when both have gone.
struct Handler {
  ~Handler() {
    if (finalizer != nullptr) finalizer(context);
  }
  void *context = nullptr;
  dispatch_function_t function = nullptr;
  dispatch_function_t finalizer = nullptr;
};

struct Source : Object {
  ~Source() override {
    if (suspended) misuse("a source that goes while it is suspended");
    if (!cancelled) misuse("a source that goes before it is cancelled");
  }
  bool isCounted() const override { return false; }
  std::string kind() const override { return "source"; }

  behind::dispatch_source_t it;
  std::shared_ptr<Handler> handler = std::make_shared<Handler>();
  bool suspended = true;
  bool cancelled = false;
};

// References of libdispatch are pointers to structures of its own.
template <class Reference>
Reference reference(void *object) {
  return static_cast<Reference>(object);
}

}  // namespace

std::vector<std::string> dispatchCalls() {
  const std::lock_guard lock(callsMutex);
  return calls;
}

void forgetDispatchCalls() {
  const std::lock_guard lock(callsMutex);
  calls.clear();
}

int handlersRunning() { return running; }

}  // namespace frameworks

using namespace frameworks;

extern "C" {

const dispatch_source_type_s _dispatch_source_type_signal = {};

dispatch_queue_global_t dispatch_get_global_queue(intptr_t priority, uintptr_t flags) {
  static auto *const queue = new Queue(behind::dispatch_get_global_queue(priority, flags));
  addStatic(*queue);
  record("get_global_queue " + std::to_string(priority) + " " + std::to_string(flags));
  return reference<dispatch_queue_global_t>(static_cast<Object *>(queue));
}

dispatch_queue_t dispatch_queue_create(const char *label, dispatch_queue_attr_t attributes) {
  if (attributes != nullptr) misuse("a queue that is not serial");
  record(std::string("queue_create ") + label);
  return make<dispatch_queue_t, Queue>(behind::dispatch_queue_create(label));
}

void dispatch_async_f(dispatch_queue_t queue, void *context, dispatch_function_t work) {
  behind::dispatch_async(
      as<Queue>(queue).it, [context, work] { work(context); });
}

dispatch_source_t dispatch_source_create(dispatch_source_type_t type, uintptr_t handle, uintptr_t mask,
                                         dispatch_queue_t queue) {
  if (type != &_dispatch_source_type_signal || mask != 0) misuse("a source of another type");
  record("source_create " + std::to_string(handle));
  auto source = std::make_unique<Source>();
  source->it = behind::dispatch_source_create(behind::DISPATCH_SOURCE_TYPE_SIGNAL, static_cast<int>(handle), mask,
                                              as<Queue>(queue).it);
  return reference<dispatch_source_t>(add(std::move(source)));
}

void dispatch_source_set_event_handler_f(dispatch_source_t source, dispatch_function_t function) {
  record("source_set_event_handler");
  const auto handler = as<Source>(source).handler;
  handler->function = function;
  behind::dispatch_source_set_event_handler(as<Source>(source).it, [handler] {
    ++running;
    handler->function(handler->context);
    --running;
  });
}

void dispatch_source_cancel(dispatch_source_t source) {
  record("source_cancel");
  as<Source>(source).cancelled = true;
}

void dispatch_set_context(dispatch_object_t object, void *context) { as<Source>(object).handler->context = context; }

void dispatch_set_finalizer_f(dispatch_object_t object, dispatch_function_t finalizer) {
  as<Source>(object).handler->finalizer = finalizer;
}

void dispatch_resume(dispatch_object_t object) {
  record("resume");
  Source &source = as<Source>(object);
  if (!std::exchange(source.suspended, false)) misuse("a resume of what is not suspended");
  if (!source.cancelled) behind::dispatch_resume(source.it);
}

void dispatch_release(dispatch_object_t object) {
  record("release");
  release(object);
}

}  // extern "C"
