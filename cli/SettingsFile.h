// A layer of settings in a file, with fewer surprises than the two calls of GBSettings itself, which stay as they are.
//
// Usual sequence:
//
//   if (const auto loaded = GB::loadSettings(*file, path); !loaded) ... loaded.error().message ...
//   ...
//   if (const auto saved = GB::saveSettings(*file, path); !saved) ...
//
// Thread rule: GBSettings'. Both block, loading from a pipe until its other end is closed.

#pragma once

#include <string>

#include "cli/GBSettings.h"
#include "foundation/Result.h"

namespace GB {

// As GBSettings::loadSettingsFromPlist(), but a missing file is an error as any other (POSIX's ENOENT), and a pipe is
// read to its end ("/dev/stdin", the "<(...)" of a shell, a FIFO). On failure the layer is as it was.
vpnctl::Status loadSettings(GBSettings &settings, const std::string &path);

// As GBSettings::saveSettingsToPlist(), but where PATH is a symbolic link, the file that it leads to is replaced or
// made, and the link stays. What has been saved can be loaded again; what could not (text with control characters, a
// value nested too deep) is an error, and the old file is whole.
vpnctl::Status saveSettings(const GBSettings &settings, const std::string &path);

}  // namespace GB
