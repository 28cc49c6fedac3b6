// vpnctl-doctor's command line, and what it asks for. Help and completion are made from the same definition.
//
// Usual sequence: GB::CommandLine::parse(kDoctorCommand, ...), then DoctorOptions::from(). Thread rule: as plain
// values.

#pragma once

#include <optional>
#include <string>

#include "cli/Command.h"
#include "cli/CommandLine.h"
#include "foundation/Result.h"

namespace companions {

extern const GB::Command kDoctorCommand;

struct DoctorOptions {
  std::optional<std::string> configuration;
  bool links = false;    // nothing but the links that are up
  bool offline = false;  // nothing is sent to the server
  bool all = false;
  bool json = false;
  std::optional<bool> colours;  // none: where standard output is a terminal

  // An error is one about the command line.
  static vpnctl::Result<DoctorOptions> from(const GB::CommandLine &line);
};

}  // namespace companions
