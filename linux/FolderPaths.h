// What lies in a folder.
//
// Thread rule: any. Blocks for the file system.

#pragma once

#include <string>
#include <system_error>
#include <vector>

namespace linux {

// The paths of all entries of FOLDER, without . and .., in no order; as far as they can be seen when ERROR is set.
// Throws nothing but for want of memory: the standard iterator's increment would, half-way.
std::vector<std::string> pathsIn(const std::string &folder, std::error_code &error);

}  // namespace linux
