// Replacing a small system file (or symbolic link) by another, and putting back what was there.
//
// Several links may replace one file at the same time: the newest link's replacement stands there, the others wait in
// their journals, and what was there before the first comes back after the last, in whatever order they end.

#pragma once

#include <functional>
#include <string>

#include "foundation/Result.h"
#include "helper/journal/Journal.h"

namespace helper {

// What is at PATH now, ready to be noted; `replacement` is left empty.
vpnctl::Result<ReplacedFile> currentFile(const std::string &path);

// Replaces the file at PATH, atomically where the file system allows it, by what REPLACEMENT makes of the text before
// (through a symbolic link that of its target), and notes it in JOURNAL first.
vpnctl::Status replaceFile(Journal &journal, const std::string &path,
                           const std::function<std::string(const std::string &before)> &replacement);

// Whether what is at the path of the ReplacedFile at INDEX of JOURNAL is still a link's work, this one's or another's.
// If not, somebody else has taken the file over, which the entry then says.
vpnctl::Result<bool> isFileStillReplaced(Journal &journal, std::size_t index);

// Takes back the ReplacedFile at INDEX of JOURNAL and forgets it: what was there before is there again byte for byte,
// or the replacement of another link. False when somebody else has changed the file since: it is left alone, and the
// entry stays.
vpnctl::Result<bool> takeFileBack(Journal &journal, std::size_t index);

}  // namespace helper
