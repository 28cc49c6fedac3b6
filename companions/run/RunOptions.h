// vpnctl-run's command line, and what it asks for. Help and completion are made from the same definition.
//
// Usual sequence: GB::CommandLine::parse(kRunCommand, ...), then RunOptions::from(). Thread rule: as plain values.

#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "cli/Command.h"
#include "cli/CommandLine.h"
#include "foundation/Result.h"

namespace companions {

extern const GB::Command kRunCommand;

struct RunOptions {
  std::string configuration;
  std::optional<std::string> passwordFile;
  std::optional<std::string> secretFile;
  bool ask = false;
  bool reconnect = false;
  std::optional<std::int64_t> reconnectLimit;
  std::chrono::seconds reconnectPause{2};
  std::optional<std::string> up;  // absolute paths
  std::optional<std::string> down;
  std::chrono::seconds hookDeadline{30};
  bool json = false;
  std::optional<bool> progress;  // none: where standard error is a terminal

  // An error is one about the command line.
  static vpnctl::Result<RunOptions> from(const GB::CommandLine &line);
};

}  // namespace companions
