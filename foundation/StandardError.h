// How this room writes to standard error: past stdio, so that a line stays one line whatever other threads print.

#pragma once

#include <unistd.h>

#include <cerrno>
#include <string_view>

namespace vpnctl {

// One write(2), repeated only for what a short write left over. Errors are swallowed: there is nowhere to report them.
inline void writeToStandardError(std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(STDERR_FILENO, text.data(), text.size());
    if (written > 0)
      text.remove_prefix(static_cast<std::size_t>(written));
    else if (written == 0 || errno != EINTR)
      return;
  }
}

}  // namespace vpnctl
