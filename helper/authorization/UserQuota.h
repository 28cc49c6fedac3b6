// How many helpers somebody who is not root may have at the same time, and so how many links, and how often a new one:
// each holds one of his places, which the kernel takes back when the process that holds it ends, however it ends.
//
// Usual sequence: take(), first of all; the place is held as long as what it gives lives. Thread rule: any. Nothing
// blocks but the end of a place.

#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>

#include "foundation/FileDescriptor.h"
#include "foundation/Result.h"

namespace helper {

class UserQuota {
 public:
  static constexpr int kPlaces = 4;
  static constexpr std::chrono::milliseconds kStay{1000};
  static constexpr char kPath[] = "/var/lib/vpnctl/users-lock";

  // Is not given back before STAY has passed since it was taken, or whoever comes again and again would have one every
  // time, and what he makes a helper do and write would be without limit. Its destructor waits for that.
  class Place {
   public:
    Place() = default;
    Place(Place &&) = default;
    ~Place();

   private:
    friend class UserQuota;
    Place(vpnctl::FileDescriptor lock, std::chrono::milliseconds stay);

    vpnctl::FileDescriptor lock_;
    std::chrono::steady_clock::time_point until_{};
  };

  explicit UserQuota(std::string path = kPath, std::chrono::milliseconds stay = kStay)
      : path_(std::move(path)), stay_(stay) {}

  // EDQUOT when all of USER's places are taken. The file, and its folder, are made when they are missing. Root needs
  // none.
  vpnctl::Result<Place> take(uid_t user) const;
  // For one that has got no place: who has this may say so. The others go in silence.
  vpnctl::Result<Place> takeComplaint(uid_t user) const;

 private:
  vpnctl::Result<Place> lockOneOf(uid_t user, int first, int count) const;

  std::string path_;  // an empty file to lock, one byte for each place
  std::chrono::milliseconds stay_;
};

}  // namespace helper
