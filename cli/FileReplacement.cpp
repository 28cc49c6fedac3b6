#include "cli/FileReplacement.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <random>

#include "foundation/FileDescriptor.h"

namespace GB {

using foundation::FileDescriptor;
using foundation::Status;

namespace {

// A file beside the one to be replaced, with a name of its own; removed unless it took that one's place.
class FileBeside {
 public:
  explicit FileBeside(const std::string &path) {
    // The umask applies, as it does to any new file; mkstemp() would keep the file to us.
    std::random_device random;
    for (int attempt = 0; attempt < 100 && !file_; ++attempt) {
      path_ = path + "." + std::to_string(random()) + ".new";
      file_.reset(::open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
      if (!file_ && errno != EEXIST) return;
    }
  }
  FileBeside(const FileBeside &) = delete;
  FileBeside &operator=(const FileBeside &) = delete;
  ~FileBeside() {
    if (file_) ::unlink(path_.c_str());
  }

  explicit operator bool() const { return static_cast<bool>(file_); }
  int descriptor() const { return file_.get(); }

  bool write(std::string_view bytes) const {
    while (!bytes.empty()) {
      const ssize_t count = ::write(file_.get(), bytes.data(), bytes.size());
      if (count < 0 && errno == EINTR) continue;
      if (count < 0) return false;
      bytes.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
  }

  bool takePlaceOf(const std::string &path) {
    if (::rename(path_.c_str(), path.c_str()) != 0) return false;
    file_.reset();
    return true;
  }

 private:
  std::string path_;
  FileDescriptor file_;
};

// 0, or why the file may not be replaced.
int refusal(const struct stat &existing) {
  if (S_ISLNK(existing.st_mode)) return ELOOP;
  if (S_ISDIR(existing.st_mode)) return EISDIR;
  return S_ISREG(existing.st_mode) ? 0 : EINVAL;
}

// So that the new name, too, outlives a power failure. A folder that cannot be opened or synchronised has the new file
// all the same.
void synchroniseFolderOf(const std::string &path) {
  const std::size_t slash = path.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  const FileDescriptor file(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (file) static_cast<void>(::fsync(file.get()));
}

}  // namespace

Status replaceFile(const std::string &path, std::string_view bytes) {
  const auto failed = [&](int errnum) { return foundation::errnoError(errnum, "save " + path); };
  struct stat existing = {};
  const bool exists = ::lstat(path.c_str(), &existing) == 0;
  if (!exists && errno != ENOENT) return failed(errno);
  if (exists && refusal(existing) != 0) return failed(refusal(existing));

  FileBeside beside(path);
  if (!beside) return failed(errno);
  if (exists) {
    // An owner that we may not give the file to is no reason to refuse its user the saving.
    static_cast<void>(::fchown(beside.descriptor(), existing.st_uid, existing.st_gid) == 0);
    if (::fchmod(beside.descriptor(), existing.st_mode & 0777) != 0) return failed(errno);
  }
  if (!beside.write(bytes) || ::fsync(beside.descriptor()) != 0 || !beside.takePlaceOf(path)) return failed(errno);
  synchroniseFolderOf(path);
  return {};
}

}  // namespace GB
