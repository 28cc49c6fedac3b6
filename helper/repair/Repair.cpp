#include "helper/repair/Repair.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <vector>

#include "foundation/FileDescriptor.h"
#include "helper/journal/Journal.h"
#include "helper/network/Routing.h"
#include "helper/repair/Undo.h"

namespace helper {

namespace {

bool usesIPSec(const Journal &journal) {
  return std::ranges::any_of(
      journal.entries(), [](const JournalEntry &entry) { return std::holds_alternative<LoadedConnection>(entry); });
}

// Kept in a file: the helper that repairs is not always the one that makes the next connection.
constexpr char kL2TPMark[] = "/l2tp-ended-unheard";
// Servers that wait for an answer to their own question have given up by then.
constexpr std::time_t kServersMemory = 120;

void rememberL2TP(const std::string &folder) {
  ::mkdir(folder.c_str(), 0700);
  const std::string path = folder + kL2TPMark;
  const foundation::FileDescriptor mark(
      ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (mark) ::futimens(mark.get(), nullptr);
}

bool remembersL2TP(const std::string &folder) {
  const std::string path = folder + kL2TPMark;
  struct stat mark {};
  if (::lstat(path.c_str(), &mark) < 0) return false;
  const std::time_t age = std::time(nullptr) - mark.st_mtime;
  if (age >= 0 && age < kServersMemory) return true;
  ::unlink(path.c_str());
  ::rmdir(folder.c_str());  // if it is empty
  return false;
}

void repairNow(const std::function<void(const std::string &)> &say, const JournalBases &bases) {
  const auto until = std::chrono::steady_clock::now() + kRepairDeadline;
  std::vector<foundation::Error> errors;
  // The files first, as at a link's own end.
  std::vector<Journal> journals = Journal::abandoned(bases.lasting, errors);
  for (Journal &journal : Journal::abandoned(bases.running, errors)) journals.push_back(std::move(journal));
  for (const auto &error : errors)
    say("What an earlier connection did to this machine cannot be read: " + error.message + ".");
  if (journals.empty()) return;
  if (std::ranges::any_of(journals, usesIPSec)) rememberL2TP(bases.running);
  const auto routing = NetlinkRouting::open();
  if (!routing) return say("An earlier connection cannot be undone: " + routing.error().message + ".");
  say("An earlier connection ended without tidying up; doing it now.");
  Undo undo(**routing, say, until);
  for (Journal &journal : journals) undo.takeBackForGood(journal);
}

}  // namespace

bool repairAbandoned(const std::function<void(const std::string &)> &say, const JournalBases &bases) {
  repairNow(say, bases);
  return remembersL2TP(bases.running);
}

}  // namespace helper
