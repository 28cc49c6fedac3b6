#include "helper/journal/Journal.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <filesystem>

#include "foundation/FileReplacement.h"
#include "foundation/PropertyList.h"
#include "linux/FolderPaths.h"

namespace helper {

using vpnctl::errnoError;
using vpnctl::FileDescriptor;
using vpnctl::Status;

namespace {

constexpr char kFileName[] = "/journal.plist";
constexpr char kNoteName[] = "/link.plist";
constexpr char kFolderPrefix[] = "link.";
constexpr char kBrokenPrefix[] = "broken.";

// One link's folder: its helper holds it locked for life, so nobody waits for it.
vpnctl::Result<FileDescriptor> openLocked(const std::string &folder) {
  FileDescriptor lock(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!lock || ::flock(lock.get(), LOCK_EX | LOCK_NB) < 0) return errnoError(errno, "lock " + folder);
  return lock;
}

// Held while a folder is made or looked for, so that nobody takes a new folder, not locked yet, for an abandoned one.
vpnctl::Result<linux::FolderLock> lockBase(const std::string &base, std::chrono::milliseconds patience) {
  for (int attempt = 0;; ++attempt) {
    if (::mkdir(base.c_str(), 0700) < 0 && errno != EEXIST) return errnoError(errno, "make the folder " + base);
    auto lock = linux::FolderLock::take(base, patience);
    // Whoever finished the last journal may have removed the folder between the two.
    if (!lock && lock.error().code == ENOENT && attempt < 9) continue;
    if (!lock) return lock;
    struct stat attributes {};
    if (::fstat(lock->folder(), &attributes) < 0) return errnoError(errno, "look at " + base);
    // Whoever made it: what lies in it is believed later, so nobody else may put anything there.
    if (attributes.st_uid != ::geteuid()) return errnoError(EPERM, "trust the folder " + base);
    if (::fchmod(lock->folder(), 0700) < 0) return errnoError(errno, "protect the folder " + base);
    return lock;
  }
}

std::string baseOf(const std::string &folder) { return std::filesystem::path(folder).parent_path(); }

// 0 for a folder of another kind.
std::uint32_t numberOf(const std::filesystem::path &folder) {
  const std::string name = folder.filename();
  std::uint32_t number = 0;
  const char *end = name.data() + name.size();
  const auto read = std::from_chars(name.data() + std::min(name.find('.') + 1, name.size()), end, number);
  return read.ec == std::errc() && read.ptr == end ? number : 0;
}

bool isLinks(const std::filesystem::path &folder) { return folder.filename().string().starts_with(kFolderPrefix); }

// One more than any there is, also among those put aside.
std::uint32_t nextNumber(const std::string &base) {
  std::uint32_t highest = 0;
  std::error_code ignored;
  for (const std::string &path : linux::pathsIn(base, ignored)) highest = std::max(highest, numberOf(path));
  return highest + 1;
}

// NUMBER, unless a journal that could not be taken back has it: of those that live, none does.
std::uint32_t freeNumber(const std::string &base, std::uint32_t number) {
  std::error_code ignored;
  const bool taken =
      number == 0 || std::filesystem::exists(base + "/" + kFolderPrefix + std::to_string(number), ignored);
  return taken ? nextNumber(base) : number;
}

Status synchronize(const std::string &folder, vpnctl::FileSystem &fileSystem) {
  const auto open = fileSystem.open(folder, O_RDONLY | O_DIRECTORY, 0);
  return open ? fileSystem.synchronize(open->get(), folder) : Status(open.error());
}

// Says nothing about what is in the journal.
bool isShortage(const vpnctl::Error &error) {
  return error.domain == vpnctl::kPOSIXErrorDomain &&
         (error.code == EMFILE || error.code == ENFILE || error.code == ENOMEM || error.code == EINTR);
}

// What was read as ERROR stays, but is not looked at again.
vpnctl::Error putAside(const std::string &folder, vpnctl::Error error) {
  const std::filesystem::path path(folder);
  const std::string aside = path.parent_path() / (kBrokenPrefix + path.extension().string().substr(1));
  if (::rename(folder.c_str(), aside.c_str()) == 0) error.message += "; it is kept in " + aside;
  return error;
}

}  // namespace

vpnctl::Result<Journal> Journal::create(const std::string &base, std::chrono::milliseconds lockPatience) {
  return make(base, 0, lockPatience);
}

vpnctl::Result<Journal *> Journal::openLasting(const std::string &base) {
  if (lasting_) return lasting_.get();
  const std::string above = baseOf(base);
  if (::mkdir(above.c_str(), 0700) < 0 && errno != EEXIST) return errnoError(errno, "make the folder " + above);
  auto made = make(base, number(), lockPatience_);
  if (!made) return made.error();
  lasting_ = std::make_unique<Journal>(std::move(*made));
  lasting_->durable_ = true;
  return lasting_.get();
}

vpnctl::Result<Journal> Journal::make(const std::string &base, std::uint32_t number,
                                      std::chrono::milliseconds lockPatience) {
  for (int attempt = 0;; ++attempt) {
    // Held until the new folder is locked.
    const auto baseLock = lockBase(base, lockPatience);
    if (!baseLock) {
      ::rmdir(base.c_str());  // it was made for nothing, when it is empty
      return baseLock.error();
    }
    std::string folder = base + "/" + kFolderPrefix + std::to_string(freeNumber(base, number));
    if (::mkdir(folder.c_str(), 0700) == 0) {
      auto lock = openLocked(folder);
      if (lock) return Journal(std::move(folder), std::move(*lock), lockPatience);
      ::rmdir(folder.c_str());
      ::rmdir(base.c_str());
      return lock.error();
    }
    // Whoever finished the last journal may have removed the base in between.
    if (errno != ENOENT || attempt == 9) return errnoError(errno, "make a folder in " + base);
  }
}

std::size_t Journal::count(const std::string &base) {
  std::error_code error;
  const auto folders = linux::pathsIn(base, error);
  return static_cast<std::size_t>(std::ranges::count_if(folders, isLinks));
}

std::vector<Journal> Journal::abandoned(const std::string &base, std::vector<vpnctl::Error> &errors,
                                        std::chrono::milliseconds lockPatience) {
  std::vector<Journal> found;
  std::error_code error;
  if (!std::filesystem::is_directory(base, error)) return found;
  const auto baseLock = lockBase(base, lockPatience);
  if (!baseLock) {
    errors.push_back(baseLock.error());
    return found;
  }
  for (const std::string &folder : linux::pathsIn(base, error)) {
    if (!isLinks(folder)) continue;
    auto lock = openLocked(folder);
    if (!lock) {
      if (isShortage(lock.error())) errors.push_back(lock.error());
      continue;  // its helper lives
    }
    Journal journal(folder, std::move(*lock), lockPatience);
    if (const Status status = journal.read(); status)
      found.push_back(std::move(journal));
    else
      errors.push_back(isShortage(status.error()) ? status.error() : putAside(folder, status.error()));
  }
  if (error) errors.push_back(errnoError(error.value(), "look into " + base));
  ::rmdir(base.c_str());  // of one who died before he had made anything in it
  return found;
}

vpnctl::Result<std::vector<Journal::Sight>> Journal::look(const std::string &base,
                                                          std::chrono::milliseconds lockPatience) {
  std::vector<Sight> found;
  // Whoever repairs has this lock: nobody takes a journal for a living one because we are just looking at it.
  const auto baseLock = linux::FolderLock::take(base, lockPatience);
  if (!baseLock && baseLock.error().code == ENOENT) return found;
  if (!baseLock) return baseLock.error();
  std::error_code error;
  for (const std::string &folder : linux::pathsIn(base, error)) {
    if (!isLinks(folder)) continue;
    auto lock = openLocked(folder);
    Sight sight{.folder = folder, .number = numberOf(folder), .alive = !lock};
    Journal journal(folder, lock ? std::move(*lock) : FileDescriptor(), lockPatience);
    sight.readable = journal.read();
    sight.entries = std::move(journal.entries_);
    if (const auto note = vpnctl::propertyListFromFile(folder + kNoteName)) sight.note = noteFrom(*note);
    std::error_code ignored;
    // Of one that has ended meanwhile, who knows what was read before and what after.
    if (std::filesystem::exists(folder, ignored)) found.push_back(std::move(sight));
  }
  if (error) return errnoError(error.value(), "look into " + base);
  std::ranges::sort(found, {}, &Sight::number);
  return found;
}

std::uint32_t Journal::number() const { return numberOf(folder_); }

vpnctl::Result<linux::FolderLock> Journal::lockOthersOut() const { return lockBase(baseOf(folder_), lockPatience_); }

std::vector<Journal::Other> Journal::others() const {
  std::vector<Other> found;
  std::error_code ignored;
  for (const std::string &folder : linux::pathsIn(baseOf(folder_), ignored)) {
    if (folder == folder_ || !isLinks(folder)) continue;
    auto lock = openLocked(folder);
    const bool alive = !lock;
    Journal journal(folder, lock ? std::move(*lock) : FileDescriptor(), lockPatience_);
    if (journal.read()) found.push_back({journal.number(), alive, std::move(journal.entries_)});
  }
  return found;
}

Status Journal::describe(const LinkNote &note) {
  const auto text = vpnctl::xmlPropertyList(noteValue(note));
  if (!text) return text.error();
  const std::string path = folder_ + kNoteName;
  vpnctl::FreshFile fresh{path + "-new"};
  fresh.durable = false;
  vpnctl::PosixFileSystem fileSystem;
  return vpnctl::replaceFile(path, *text, fresh, fileSystem);
}

Status Journal::note(JournalEntry entry) {
  entries_.push_back(std::move(entry));
  Status status = write();
  if (!status) entries_.pop_back();
  return status;
}

Status Journal::forgetLast() {
  if (!entries_.empty()) entries_.pop_back();
  return write();
}

Status Journal::forget(std::size_t index) {
  if (index < entries_.size()) entries_.erase(entries_.begin() + static_cast<std::ptrdiff_t>(index));
  return write();
}

Status Journal::replace(std::size_t index, JournalEntry entry) {
  std::swap(entries_.at(index), entry);
  Status status = write();
  if (!status) std::swap(entries_.at(index), entry);
  return status;
}

void Journal::forgetEntry(const JournalEntry &entry) {
  const auto found = std::find(entries_.rbegin(), entries_.rend(), entry);
  if (found == entries_.rend()) return;
  entries_.erase(std::next(found).base());
  // When this cannot be written, the next helper undoes it once more, which does no harm.
  static_cast<void>(write());
}

void Journal::remove() {
  std::error_code ignored;
  std::filesystem::remove_all(folder_, ignored);
  lock_.reset();
  // The last one out takes the base along; while another link lives, it is not empty.
  const std::string base = baseOf(folder_);
  const auto baseLock = linux::FolderLock::take(base, lockPatience_);
  if (baseLock) ::rmdir(base.c_str());
}

Status Journal::write() const {
  const auto text = vpnctl::xmlPropertyList(journalValue(entries_));
  if (!text) return text.error();
  const std::string path = folder_ + kFileName;
  vpnctl::FreshFile fresh{path + "-new"};
  fresh.durable = durable_;  // what the others tell of does not outlive a power failure either
  vpnctl::PosixFileSystem fileSystem;
  Status status = vpnctl::replaceFile(path, *text, fresh, fileSystem);
  if (!durable_) return status;
  // Each folder's name stands in the one above, up to one that was there before.
  const std::string base = baseOf(folder_);
  for (const std::string &folder : {folder_, base, baseOf(base), baseOf(baseOf(base))})
    if (status) status = synchronize(folder, fileSystem);
  return status;
}

Status Journal::read() {
  const std::string path = folder_ + kFileName;
  const auto value = vpnctl::propertyListFromFile(path);
  if (!value) {
    // A helper that died before its first change leaves a folder without a journal.
    if (value.error().domain == vpnctl::kPOSIXErrorDomain && value.error().code == ENOENT) return {};
    return value.error();
  }
  auto entries = journalEntries(*value);
  if (!entries) return vpnctl::Error{entries.error().domain, 0, path + ": " + entries.error().message};
  entries_ = std::move(*entries);
  return {};
}

}  // namespace helper
