// DDLog: levelled logging to whatever loggers have been attached; without one, messages go nowhere. Thread rule:
// everything may be called from any thread; a synchronous message has reached every logger when log() returns,
// asynchronous ones are delivered in order on a queue of DDLog's own.

#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace vpnctl {

using DDLogLevel = std::uint32_t;
using DDLogFlag = std::uint32_t;
inline constexpr DDLogFlag DDLogFlagError = 1;
inline constexpr DDLogFlag DDLogFlagWarning = 2;
inline constexpr DDLogFlag DDLogFlagInfo = 4;
inline constexpr DDLogFlag DDLogFlagDebug = 8;
inline constexpr DDLogFlag DDLogFlagVerbose = 16;
inline constexpr DDLogLevel DDLogLevelVerbose = 31;

struct DDLogMessage {
  bool asynchronous = false;
  DDLogLevel level = 0;
  DDLogFlag flag = 0;
  std::int64_t context = 0;
  std::string file;
  std::string function;
  std::uint32_t line = 0;
  const void *tag = nullptr;
  std::string message;
};

// Attached by whoever wants to see messages.
class DDLogger {
 public:
  virtual ~DDLogger() = default;
  virtual void logMessage(const DDLogMessage &message) = 0;
};

class DDLog {
 public:
  static void addLogger(std::shared_ptr<DDLogger> logger);
  static void removeLogger(const std::shared_ptr<DDLogger> &logger);

  // FORMAT and what follows as vpnctl::format takes them.
  static void log(bool asynchronous, DDLogLevel level, DDLogFlag flag, std::int64_t context, const char *file,
                  const char *function, std::uint32_t line, const void *tag, const char *format, ...);
};

}  // namespace vpnctl
