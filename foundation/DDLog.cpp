#include "foundation/DDLog.h"

#include <cstdarg>
#include <future>
#include <mutex>
#include <utility>
#include <vector>

#include "foundation/Format.h"
#include "foundation/WorkQueue.h"

namespace vpnctl {

namespace {

struct Facility {
  std::mutex mutex;  // guards loggers
  std::vector<std::shared_ptr<DDLogger>> loggers;
  WorkQueue queue{"ddlog"};
};

// Never destroyed: a thread that still logs while the process ends must find it.
Facility &facility() {
  static Facility &instance = *new Facility;
  return instance;
}

// Set on the facility's own thread: a logger that logs must not wait for itself.
thread_local bool delivering = false;

void deliver(const std::vector<std::shared_ptr<DDLogger>> &loggers, const DDLogMessage &message) {
  const bool outer = std::exchange(delivering, true);
  for (const std::shared_ptr<DDLogger> &logger : loggers) logger->logMessage(message);
  delivering = outer;
}

std::string textOrEmpty(const char *text) { return text != nullptr ? text : ""; }

}  // namespace

void DDLog::addLogger(std::shared_ptr<DDLogger> logger) {
  if (!logger) return;
  const std::lock_guard lock(facility().mutex);
  facility().loggers.push_back(std::move(logger));
}

void DDLog::removeLogger(const std::shared_ptr<DDLogger> &logger) {
  const std::lock_guard lock(facility().mutex);
  std::erase(facility().loggers, logger);
}

void DDLog::log(bool asynchronous, DDLogLevel level, DDLogFlag flag, std::int64_t context, const char *file,
                const char *function, std::uint32_t line, const void *tag, const char *format, ...) {
  std::vector<std::shared_ptr<DDLogger>> loggers;
  {
    const std::lock_guard lock(facility().mutex);
    loggers = facility().loggers;
  }
  if (loggers.empty()) return;

  std::va_list arguments;
  va_start(arguments, format);
  DDLogMessage message{.asynchronous = asynchronous,
                       .level = level,
                       .flag = flag,
                       .context = context,
                       .file = textOrEmpty(file),
                       .function = textOrEmpty(function),
                       .line = line,
                       .tag = tag,
                       .message = formatWithArguments(format, arguments)};
  va_end(arguments);

  if (!asynchronous && delivering) {
    deliver(loggers, message);
    return;
  }
  // A synchronous message goes through the queue too: it must not overtake asynchronous ones sent before it.
  auto delivered = std::make_shared<std::promise<void>>();
  std::future<void> reached = delivered->get_future();
  facility().queue.async([loggers = std::move(loggers), message = std::move(message), delivered] {
    deliver(loggers, message);
    delivered->set_value();
  });
  if (!asynchronous) reached.wait();
}

}  // namespace vpnctl
