#include "tests/support/FaultyFileSystem.h"

#include <utility>

namespace support {

using vpnctl::FileDescriptor;
using vpnctl::Result;
using vpnctl::Status;

void FaultyFileSystem::failNext(Call call, std::string suffix, int errnum) {
  call_ = call;
  suffix_ = std::move(suffix);
  errnum_ = errnum;
}

Status FaultyFileSystem::fault(Call call, const std::string &path) {
  if (call != call_ || !path.ends_with(suffix_)) return {};
  call_ = Call::none;
  return vpnctl::errnoError(errnum_, "injected " + path);
}

Result<FileDescriptor> FaultyFileSystem::open(const std::string &path, int flags, mode_t mode) {
  if (auto status = fault(Call::open, path); !status) return status.error();
  return vpnctl::PosixFileSystem::open(path, flags, mode);
}

Status FaultyFileSystem::write(int file, std::string_view bytes, const std::string &path) {
  if (auto status = fault(Call::write, path); !status) {
    if (auto half = vpnctl::PosixFileSystem::write(file, bytes.substr(0, bytes.size() / 2), path); !half) return half;
    return status;
  }
  return vpnctl::PosixFileSystem::write(file, bytes, path);
}

Status FaultyFileSystem::synchronize(int file, const std::string &path) {
  auto status = fault(Call::synchronize, path);
  return status ? vpnctl::PosixFileSystem::synchronize(file, path) : status;
}

Status FaultyFileSystem::rename(const std::string &from, const std::string &to) {
  auto status = fault(Call::rename, to);
  return status ? vpnctl::PosixFileSystem::rename(from, to) : status;
}

Status FaultyFileSystem::link(const std::string &from, const std::string &to) {
  auto status = fault(Call::link, to);
  return status ? vpnctl::PosixFileSystem::link(from, to) : status;
}

Status FaultyFileSystem::remove(const std::string &path) {
  auto status = fault(Call::remove, path);
  return status ? vpnctl::PosixFileSystem::remove(path) : status;
}

Status FaultyFileSystem::lock(int file, const std::string &path) {
  auto status = fault(Call::lock, path);
  return status ? vpnctl::PosixFileSystem::lock(file, path) : status;
}

}  // namespace support
