#include "foundation/FileReplacement.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace vpnctl {

namespace {

Status write(const FreshFile &fresh, int file, std::string_view bytes, FileSystem &fileSystem) {
  if (fresh.prepare)
    if (Status prepared = fresh.prepare(file); !prepared) return prepared;
  if (Status written = fileSystem.write(file, bytes, fresh.path); !written || !fresh.durable) return written;
  return fileSystem.synchronize(file, fresh.path);
}

}  // namespace

Status replaceFile(const std::string &path, std::string_view bytes, const FreshFile &fresh, FileSystem &fileSystem) {
  if (fresh.name == FreshFile::Name::own)
    if (Status removed = fileSystem.remove(fresh.path); !removed && removed.error().code != ENOENT) return removed;
  const auto file = fileSystem.open(fresh.path, O_WRONLY | O_CREAT | O_EXCL, fresh.mode);
  if (!file) return file.error();
  Status status = write(fresh, file->get(), bytes, fileSystem);
  if (status) status = fileSystem.rename(fresh.path, path);
  if (!status) ::unlink(fresh.path.c_str());
  return status;
}

std::string folderOf(const std::string &path) {
  const auto slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace vpnctl
