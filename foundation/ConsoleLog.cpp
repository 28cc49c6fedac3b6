#include "foundation/ConsoleLog.h"

#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <string>

#include "foundation/Format.h"
#include "foundation/ProcessInfo.h"
#include "foundation/StandardError.h"

namespace vpnctl {

namespace {

// "2026-11-21 10:00:00.123", local time.
std::string timestamp() {
  const auto now = std::chrono::system_clock::now();
  const std::time_t second = std::chrono::system_clock::to_time_t(now);
  const auto milliseconds =
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
  std::tm local{};
  localtime_r(&second, &local);
  std::array<char, 96> buffer{};
  const int length = std::snprintf(buffer.data(), buffer.size(), "%04d-%02d-%02d %02d:%02d:%02d.%03d",
                                   local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min,
                                   local.tm_sec, static_cast<int>(milliseconds));
  return {buffer.data(), static_cast<std::size_t>(length)};
}

}  // namespace

void NSLog(const char *format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  const std::string message = formatWithArguments(format, arguments);
  va_end(arguments);
  std::string line = timestamp() + " " + ProcessInfo::processName() + "[" + std::to_string(::getpid()) + "] " + message;
  if (!line.ends_with('\n')) line += '\n';
  writeToStandardError(line);
}

}  // namespace vpnctl
