// What the system says of itself.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vpnctl {

struct OperatingSystemVersion {
  std::int64_t majorVersion = 0;
  std::int64_t minorVersion = 0;
  std::int64_t patchVersion = 0;
  auto operator<=>(const OperatingSystemVersion &) const = default;
};

class ProcessInfo {
 public:
  // The property list that names the system's version. Tests point it elsewhere; nothing else does.
  static const std::string &systemVersionPath();
  static void setSystemVersionPath(std::string path);

  // "ProductVersion" of that file; none when the file, the key or its text is missing.
  static std::optional<std::string> productVersion();
  // The same in numbers; 0.0.0 without it.
  static OperatingSystemVersion operatingSystemVersion();
  static bool isOperatingSystemAtLeastVersion(const OperatingSystemVersion &version);

  // argv[0] without folders, as the console log shows it.
  static std::string processName();

  // argv from the program's path on, byte for byte, without /proc too; empty when the system does not say. What the
  // program itself did to its argument vector, getopt's reordering for example, does not show.
  static std::vector<std::string> arguments();
};

}  // namespace vpnctl
