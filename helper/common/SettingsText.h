// The text of a settings file before libconfig sees it: whether root may believe it, and what libconfig 1.5 would get
// wrong in it.

#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

#include "foundation/Result.h"

namespace helper {

// The bytes of the file at PATH; none when there is no such file. An error (a sentence part about "it") for anything
// but a regular file of OWNER's that nobody else may write, of 64 KiB at most.
vpnctl::Result<std::optional<std::string>> readSettingsText(const std::string &path, uid_t owner);

// The line, from 1, of the first @include, which would bring in files that nobody has looked at; 0 when there is none.
unsigned lineOfInclude(std::string_view text);

// TEXT with an L behind its long integers: libconfig 1.5 reads 4294968696 as 1400.
std::string withLongIntegers(std::string_view text);

}  // namespace helper
