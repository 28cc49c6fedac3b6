#include "cli/FileReplacement.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <random>

#include "foundation/FileReplacement.h"

namespace GB {

using vpnctl::Result;
using vpnctl::Status;

namespace {

constexpr int kAttempts = 100;  // to find a name beside the file that nobody has

// 0, or why the file may not be replaced.
int refusal(const struct stat &existing) {
  if (S_ISLNK(existing.st_mode)) return ELOOP;
  if (S_ISDIR(existing.st_mode)) return EISDIR;
  return S_ISREG(existing.st_mode) ? 0 : EINVAL;
}

// So that the new name, too, outlives a power failure. A folder that cannot be opened or synchronised has the new file
// all the same.
void synchroniseFolderOf(const std::string &path, vpnctl::FileSystem &fileSystem) {
  // The slash at the end leads through a symbolic link.
  const std::string folder = vpnctl::folderOf(path) + "/";
  const auto file = fileSystem.open(folder, O_RDONLY | O_DIRECTORY, 0);
  if (file) static_cast<void>(fileSystem.synchronize(file->get(), folder));
}

constexpr int kMaximumLinks = 40;  // as the system follows

// What PATH leads to, if it is a symbolic link; the last of them may lead nowhere.
Result<std::string> followed(std::string path) {
  for (int links = 0; links < kMaximumLinks; ++links) {
    std::error_code error;
    const std::filesystem::path target = std::filesystem::read_symlink(path, error);
    if (error) return path;
    path = target.is_absolute() ? target.string() : vpnctl::folderOf(path) + "/" + target.string();
  }
  return vpnctl::errnoError(ELOOP, "save " + path);
}

}  // namespace

Status replaceFileBehindLinks(const std::string &path, std::string_view bytes) {
  const Result<std::string> target = followed(path);
  return target ? replaceFile(*target, bytes) : Status(target.error());
}

Status replaceFile(const std::string &path, std::string_view bytes) {
  const auto failed = [&](int errnum) { return vpnctl::errnoError(errnum, "save " + path); };
  struct stat existing = {};
  const bool exists = ::lstat(path.c_str(), &existing) == 0;
  if (!exists && errno != ENOENT) return failed(errno);
  if (exists && refusal(existing) != 0) return failed(refusal(existing));

  vpnctl::FreshFile fresh;
  fresh.name = vpnctl::FreshFile::Name::shared;
  fresh.mode = 0666;  // the umask applies, as it does to any new file
  fresh.prepare = [&](int file) -> Status {
    if (!exists) return {};
    // An owner that we may not give the file to is no reason to refuse its user the saving.
    static_cast<void>(::fchown(file, existing.st_uid, existing.st_gid) == 0);
    if (::fchmod(file, existing.st_mode & 0777) != 0) return failed(errno);
    return {};
  };
  vpnctl::PosixFileSystem fileSystem;
  std::random_device random;
  Status status = failed(EEXIST);
  for (int attempt = 0; attempt < kAttempts && !status && status.error().code == EEXIST; ++attempt) {
    // Not made of the file's own name, which may be as long as a name can be.
    fresh.path = vpnctl::folderOf(path) + "/.vpnctl-cli." + std::to_string(random()) + ".new";
    status = vpnctl::replaceFile(path, bytes, fresh, fileSystem);
  }
  if (!status) return failed(status.error().code);
  synchroniseFolderOf(path, fileSystem);
  return {};
}

}  // namespace GB
