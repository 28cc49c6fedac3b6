// Replacing a file whole: whatever goes wrong (a full disk, a killed process), there are the old bytes or the new ones.
//
// Thread rule: any, one at a time for each path. Blocks on the disk.

#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <string_view>

#include "foundation/FileSystem.h"
#include "foundation/Result.h"

namespace vpnctl {

// What takes the file's place.
struct FreshFile {
  enum class Name {
    own,    // one that is there was left by somebody who was killed, and goes
    shared  // one that is there may be in use: EEXIST
  };

  std::string path;  // beside the file
  Name name = Name::own;
  mode_t mode = 0600;                            // less the umask
  bool durable = true;                           // on the disk before it takes the name
  std::function<Status(int file)> prepare = {};  // sets owner and mode, before there is a byte in it
};

// Writes BYTES to FRESH and renames it to PATH. On failure PATH is as it was, and FRESH is gone. An error's code is the
// errno, EBUSY of a PATH that is mounted. The new name outlives a power failure when the folder has been synchronised,
// too; that is the caller's to do.
Status replaceFile(const std::string &path, std::string_view bytes, const FreshFile &fresh, FileSystem &fileSystem);

// Where PATH lies: "." for a name alone.
std::string folderOf(const std::string &path);

}  // namespace vpnctl
