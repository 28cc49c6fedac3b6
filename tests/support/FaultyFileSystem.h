// The real file system, one call of which fails.

#pragma once

#include <string>

#include "foundation/FileSystem.h"

namespace support {

class FaultyFileSystem : public vpnctl::PosixFileSystem {
 public:
  enum class Call { none, open, write, synchronize, rename, link, remove, lock };

  // The next CALL on a path that ends with SUFFIX fails with ERRNUM; a write has written half of its bytes by then.
  void failNext(Call call, std::string suffix, int errnum);

  vpnctl::Result<vpnctl::FileDescriptor> open(const std::string &path, int flags, mode_t mode) override;
  vpnctl::Status write(int file, std::string_view bytes, const std::string &path) override;
  vpnctl::Status synchronize(int file, const std::string &path) override;
  vpnctl::Status rename(const std::string &from, const std::string &to) override;
  vpnctl::Status link(const std::string &from, const std::string &to) override;
  vpnctl::Status remove(const std::string &path) override;
  vpnctl::Status lock(int file, const std::string &path) override;

 private:
  vpnctl::Status fault(Call call, const std::string &path);

  Call call_ = Call::none;
  std::string suffix_;
  int errnum_ = 0;
};

}  // namespace support
