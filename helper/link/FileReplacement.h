// Replacing a small system file (or symbolic link) by another, and putting back what was there.

#pragma once

#include <string>

#include "foundation/Result.h"
#include "helper/link/Journal.h"

namespace helper {

// What is at PATH now, ready to be noted; `replacement` is left empty.
foundation::Result<ReplacedFile> currentFile(const std::string &path);

// Puts a file with FILE's replacement, mode and owner at its path, atomically where the file system allows it.
foundation::Status putReplacement(const ReplacedFile &file);

// Puts back what was there before, byte for byte. False when somebody else has changed the file since: it is left
// alone.
foundation::Result<bool> putBack(const ReplacedFile &file);

}  // namespace helper
