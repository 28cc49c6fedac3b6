// How many links somebody who is not root may have at the same time: each holds one of his places, which the kernel
// takes back when the process that holds it ends, however it ends.
//
// Usual sequence: take(); the place is held as long as what it gives lives. Thread rule: any. Nothing blocks.

#pragma once

#include <sys/types.h>

#include <string>

#include "foundation/FileDescriptor.h"
#include "foundation/Result.h"

namespace helper {

class UserQuota {
 public:
  static constexpr int kPlaces = 4;
  static constexpr char kPath[] = "/var/lib/vpnctl/users-lock";

  explicit UserQuota(std::string path = kPath) : path_(std::move(path)) {}

  // EDQUOT when all of USER's places are taken. The file, and its folder, are made when they are missing.
  foundation::Result<foundation::FileDescriptor> take(uid_t user) const;

 private:
  std::string path_;  // an empty file to lock, one byte for each place
};

}  // namespace helper
