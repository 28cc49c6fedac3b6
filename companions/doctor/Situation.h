// For what and for whom the checks look: the machine, the user, the configuration if one was named, and the engine's
// settings for its server.
//
// Usual sequence: Situation::of(), then any check's look(). Thread rule: as a plain value. of() blocks on the disk.

#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

#include "companions/common/ToolConfiguration.h"
#include "companions/doctor/Machine.h"
#include "foundation/Result.h"
#include "helper/common/EngineSettings.h"

namespace companions {

struct Situation {
  Machine machine;
  uid_t user = 0;
  std::optional<std::string> path;  // of the configuration
  std::optional<vpnctl::Result<ToolConfiguration>> configuration;
  helper::EngineSettings settings;  // the defaults hold for what cannot be read

  // PATH: of the configuration; none: the findings are for any connection.
  static Situation of(Machine machine, uid_t user, std::optional<std::string> path);

  bool isRoot() const { return user == 0; }
  // Whether the connection may be one of PROTOCOL: it is, or nobody knows.
  bool concerns(std::string_view protocol) const;
  // Empty: not known.
  std::string server() const;
};

}  // namespace companions
