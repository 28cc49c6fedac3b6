// The configuration file as libconfig reads it.
//
// Thread rule: as libconfig's. Blocks on the disk.

#pragma once

#include <libconfig.h>

namespace TN {

// config_read_file(), but quick also where a setting is megabytes long. CONFIG is initialised; it holds the settings or
// what is wrong with the file, which is then false.
[[nodiscard]] bool readConfiguration(config_t *config, const char *path);

// Whether every user of this machine can read the file at PATH, which holds secrets: by its own mode and those of the
// folders above it.
bool everybodyMayRead(const char *path);

}  // namespace TN
