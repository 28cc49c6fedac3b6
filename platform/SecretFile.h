// What users should know about a file of theirs that holds secrets.
//
// Thread rule: the main thread, once the right has been obtained.

#pragma once

#include <string>

namespace platform {

// Tells, where one looks for what went wrong with a connection (Linux: the PPP log, macOS: the system's log), that
// everybody may read the file at PATH, and the remedy. Blocks for a round trip. What cannot be told is dropped.
void tellOfReadableSecrets(const std::string &path);

}  // namespace platform
