// The key under which the keychain's secrets are sealed: 32 bytes in a file that only root may read.
//
// XChaCha20-Poly1305: its nonces are long enough to be drawn at random, and what a secret belongs to is bound to it as
// associated data. Thread rule: one thread.

#pragma once

#include <string>
#include <string_view>

#include "foundation/FileSystem.h"
#include "foundation/Result.h"
#include "foundation/Secret.h"

namespace helper {

class SystemKey {
 public:
  // The key in the file at PATH; ENOENT when there is none, EPERM when it is readable by others or not ours, ELOOP when
  // it is a symbolic link, EINVAL when it is no key.
  static vpnctl::Result<SystemKey> load(const std::string &path, vpnctl::FileSystem &fileSystem);
  // A fresh random key, in a new file at PATH (0400), whole and on the disk when this returns. EEXIST when there is
  // one: a key is never replaced.
  static vpnctl::Result<SystemKey> create(const std::string &path, vpnctl::FileSystem &fileSystem);

  // Removes what a process that was killed in create() left beside the key at PATH. Only for who holds the keychain's
  // lock.
  static void removeRemains(const std::string &path, vpnctl::FileSystem &fileSystem);

  // SECRET, encrypted and bound to ASSOCIATED, which is not part of the result.
  vpnctl::Result<std::string> seal(const vpnctl::Secret &secret, std::string_view associated) const;
  // The secret; EBADMSG when SEALED or ASSOCIATED is not what was sealed under this key.
  vpnctl::Result<vpnctl::Secret> unseal(std::string_view sealed, std::string_view associated) const;

 private:
  explicit SystemKey(vpnctl::Secret key) : key_(std::move(key)) {}

  vpnctl::Secret key_;
};

}  // namespace helper
