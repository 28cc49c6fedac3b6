#include "foundation/ProcessInfo.h"

#include <charconv>
#include <utility>

#include "foundation/PropertyList.h"

namespace vpnctl {

namespace {

std::string &mutableSystemVersionPath() {
  static std::string &path = *new std::string("/System/Library/CoreServices/SystemVersion.plist");
  return path;
}

}  // namespace

const std::string &ProcessInfo::systemVersionPath() { return mutableSystemVersionPath(); }

void ProcessInfo::setSystemVersionPath(std::string path) { mutableSystemVersionPath() = std::move(path); }

std::optional<std::string> ProcessInfo::productVersion() {
  const Result<Value> file = propertyListFromFile(systemVersionPath());
  if (!file) return std::nullopt;
  const Value &version = (*file)["ProductVersion"];
  if (!version.isString()) return std::nullopt;
  return version.string();
}

OperatingSystemVersion ProcessInfo::operatingSystemVersion() {
  const std::string text = productVersion().value_or("");
  OperatingSystemVersion version;
  const char *next = text.data();
  const char *const end = text.data() + text.size();
  for (std::int64_t *number : {&version.majorVersion, &version.minorVersion, &version.patchVersion}) {
    std::uint32_t component = 0;
    const auto [after, error] = std::from_chars(next, end, component);
    if (error != std::errc()) break;
    *number = component;
    if (after == end || *after != '.') break;
    next = after + 1;
  }
  return version;
}

bool ProcessInfo::isOperatingSystemAtLeastVersion(const OperatingSystemVersion &version) {
  return operatingSystemVersion() >= version;
}

}  // namespace vpnctl
