#include "helper/network/FileReplacement.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <filesystem>
#include <optional>

#include "foundation/FileReplacement.h"

namespace helper {

using vpnctl::errnoError;
using vpnctl::FileDescriptor;
using vpnctl::Status;
using vpnctl::writeAll;

namespace {

constexpr std::size_t kLargest = std::size_t{1} << 20;  // no resolver file comes near

vpnctl::Result<std::string> readAll(int file, const std::string &path) {
  std::string bytes;
  std::array<char, 4096> block{};
  while (true) {
    const ssize_t count = ::read(file, block.data(), block.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return errnoError(errno, "read " + path);
    if (count == 0) return bytes;
    bytes.append(block.data(), static_cast<std::size_t>(count));
    if (bytes.size() > kLargest) return errnoError(EFBIG, "read " + path);
  }
}

// Written beside PATH first.
std::string freshName(const std::string &path) { return path + ".vpnctl-new"; }

Status putBytes(const ReplacedFile &file, const std::string &bytes) {
  vpnctl::FreshFile fresh{freshName(file.path)};
  fresh.prepare = [&](int out) -> Status {
    if (::fchown(out, file.owner, file.group) == 0 && ::fchmod(out, file.mode) == 0) return {};
    return errnoError(errno, "write the new " + file.path);
  };
  vpnctl::PosixFileSystem fileSystem;
  Status status = vpnctl::replaceFile(file.path, bytes, fresh, fileSystem);
  if (status || status.error().code != EBUSY) return status;
  // Containers mount the file itself: it can be written, not replaced.
  FileDescriptor place(::open(file.path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC));
  if (!place) return errnoError(errno, "write " + file.path);
  return writeAll(place.get(), bytes, file.path);
}

Status putLink(const ReplacedFile &file, const std::string &target) {
  const std::string fresh = freshName(file.path);
  ::unlink(fresh.c_str());
  if (::symlink(target.c_str(), fresh.c_str()) == 0 && ::rename(fresh.c_str(), file.path.c_str()) == 0) return {};
  const int cause = errno;
  ::unlink(fresh.c_str());
  return errnoError(cause, "put back the link " + file.path);
}

// The new name outlives a power failure from here on: before its journal forgets it, what is put back has to.
void synchronizeFolderOf(const std::string &path) {
  const FileDescriptor folder(::open(vpnctl::folderOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (folder) ::fsync(folder.get());
}

Status putOriginal(const ReplacedFile &file) {
  if (file.bytes) return putBytes(file, *file.bytes);
  if (file.linkTarget) return putLink(file, *file.linkTarget);
  if (::unlink(file.path.c_str()) < 0) return errnoError(errno, "remove " + file.path);
  return {};
}

vpnctl::Result<std::string> textBefore(const ReplacedFile &file) {
  if (!file.linkTarget) return file.bytes.value_or("");
  const std::string target = std::filesystem::path(file.path).parent_path() / *file.linkTarget;
  const FileDescriptor in(::open(target.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (in) return readAll(in.get(), target);
  if (errno == ENOENT) return std::string();
  return errnoError(errno, "open " + target);
}

// Another link's replacement of the same file.
struct Layer {
  std::uint32_t number = 0;
  bool alive = false;
  ReplacedFile file;
};

std::vector<Layer> layersOn(const Journal &journal, const std::string &path) {
  std::vector<Layer> layers;
  for (const Journal::Other &other : journal.others())
    for (const JournalEntry &entry : other.entries)
      if (const auto *file = std::get_if<ReplacedFile>(&entry); file != nullptr && file->path == path)
        layers.push_back({other.number, other.alive, *file});
  return layers;
}

// Those that have replaced the same original as FILE.
std::vector<Layer> layersBeside(const Journal &journal, const ReplacedFile &file) {
  std::vector<Layer> layers = layersOn(journal, file.path);
  std::erase_if(layers, [&](Layer layer) {
    layer.file.replacement = file.replacement;
    layer.file.takenOver = file.takenOver;
    return layer.file != file;
  });
  return layers;
}

// The newest of those whose links live; null when there is none.
const Layer *newest(const std::vector<Layer> &layers) {
  const Layer *found = nullptr;
  for (const Layer &layer : layers)
    if (layer.alive && (found == nullptr || layer.number > found->number)) found = &layer;
  return found;
}

bool isAsBefore(const ReplacedFile &now, const ReplacedFile &file) {
  return now.bytes == file.bytes && now.linkTarget == file.linkTarget;
}

bool isMounted(const std::string &path) {
  struct statx attributes {};
  return ::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, 0, &attributes) == 0 &&
         (attributes.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
}

// Whether NOW is what is left where one of us could only write, not replace, and did not come to the end of it.
bool isCutOff(const ReplacedFile &now, const ReplacedFile &file, const std::vector<Layer> &layers) {
  if (!now.bytes || !isMounted(file.path)) return false;
  const auto isBeginOf = [&](const std::string &whole) { return whole.starts_with(*now.bytes); };
  return isBeginOf(file.replacement) || (file.bytes && isBeginOf(*file.bytes)) ||
         std::any_of(layers.begin(), layers.end(),
                     [&](const Layer &layer) { return isBeginOf(layer.file.replacement); });
}

// takeFileBack() while the others are locked out.
vpnctl::Result<bool> takeFileBackAlone(const Journal &journal, const ReplacedFile &file) {
  const auto now = currentFile(file.path);
  if (!now) return now.error();
  // Whoever wrote it has died: nobody else may write here now.
  ::unlink(freshName(file.path).c_str());
  // Noted, but never done: whoever noted it died in between.
  if (isAsBefore(*now, file)) return true;
  const std::vector<Layer> layers = layersBeside(journal, file);
  if (now->bytes != file.replacement && !isCutOff(*now, file, layers))
    return std::any_of(layers.begin(), layers.end(),
                       [&](const Layer &layer) { return now->bytes == layer.file.replacement; });
  const Layer *top = newest(layers);
  const Status put = top != nullptr ? putBytes(file, top->file.replacement) : putOriginal(file);
  if (!put) return put.error();
  synchronizeFolderOf(file.path);
  return true;
}

}  // namespace

vpnctl::Result<ReplacedFile> currentFile(const std::string &path) {
  ReplacedFile file;
  file.path = path;
  struct stat attributes {};
  if (::lstat(path.c_str(), &attributes) < 0) {
    if (errno == ENOENT) return file;
    return errnoError(errno, "look at " + path);
  }
  if (S_ISLNK(attributes.st_mode)) {
    std::array<char, PATH_MAX> target{};
    const ssize_t size = ::readlink(path.c_str(), target.data(), target.size());
    if (size < 0) return errnoError(errno, "read the link " + path);
    file.linkTarget = std::string(target.data(), static_cast<std::size_t>(size));
    return file;
  }
  if (!S_ISREG(attributes.st_mode)) return errnoError(EINVAL, "replace " + path);
  FileDescriptor in(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  if (!in) return errnoError(errno, "open " + path);
  auto bytes = readAll(in.get(), path);
  if (!bytes) return bytes.error();
  file.bytes = std::move(*bytes);
  file.mode = attributes.st_mode & 07777;
  file.owner = attributes.st_uid;
  file.group = attributes.st_gid;
  return file;
}

Status replaceFile(Journal &journal, const std::string &path,
                   const std::function<std::string(const std::string &)> &replacement) {
  const auto lock = journal.lockOthersOut();
  if (!lock) return lock.error();
  auto file = currentFile(path);
  if (!file) return file.error();
  const ReplacedFile before = *file;
  for (const Layer &layer : layersOn(journal, path))
    if (file->bytes == layer.file.replacement) {
      // What comes back in the end is what was there before the first, and no link's work.
      *file = layer.file;
      break;
    }
  const auto text = textBefore(*file);
  if (!text) return text.error();
  file->replacement = replacement(*text);
  if (Status noted = journal.note(*file); !noted) return noted;
  const std::vector<Layer> layers = layersBeside(journal, *file);
  if (const Layer *top = newest(layers); top != nullptr && top->number > journal.number()) return {};
  Status put = putBytes(*file, file->replacement);
  // A file that could only be written may have been lost in the attempt: then it is still to be put back.
  if (const auto now = currentFile(path); !put && now && *now == before) static_cast<void>(journal.forgetLast());
  return put;
}

vpnctl::Result<bool> isFileStillReplaced(Journal &journal, std::size_t index) {
  // Others note first and write then: without the lock their work could look like a stranger's.
  const auto lock = journal.lockOthersOut();
  if (!lock) return lock.error();
  ReplacedFile file = std::get<ReplacedFile>(journal.entries().at(index));
  const auto now = currentFile(file.path);
  if (!now) return now.error();
  const std::vector<Layer> layers = layersOn(journal, file.path);
  const bool ours = now->bytes == file.replacement || std::ranges::any_of(layers, [&](const Layer &layer) {
                      return now->bytes == layer.file.replacement;
                    });
  if (ours) return true;
  file.takenOver = true;
  // When this cannot be written, the worst that follows is that it is said twice.
  static_cast<void>(journal.replace(index, std::move(file)));
  return false;
}

vpnctl::Result<bool> takeFileBack(Journal &journal, std::size_t index) {
  const auto lock = journal.lockOthersOut();
  if (!lock) return lock.error();
  const auto done = takeFileBackAlone(journal, std::get<ReplacedFile>(journal.entries().at(index)));
  // In one step with the file: a link that ends at the same moment would take what we no longer want for the newest
  // wish. When it cannot be written, the worst that follows is that the file is put back twice, which does no harm.
  if (done && *done) static_cast<void>(journal.forget(index));
  return done;
}

}  // namespace helper
