// Which file keeps the kernel from loading a module (modprobe.d(5)), for sentences that name the remedy.

#pragma once

#include <optional>
#include <string>
#include <vector>

namespace helper {

// The path of a file in one of FOLDERS that blacklists MODULE, or lets another command run instead of loading it.
// Blocks for the reading.
std::optional<std::string> moduleBlacklist(const std::string &module,
                                           const std::vector<std::string> &folders = {
                                               "/etc/modprobe.d", "/run/modprobe.d", "/usr/local/lib/modprobe.d",
                                               "/usr/lib/modprobe.d", "/lib/modprobe.d"});

}  // namespace helper
