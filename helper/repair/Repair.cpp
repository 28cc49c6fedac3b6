#include "helper/repair/Repair.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <filesystem>
#include <optional>
#include <vector>

#include "foundation/FileDescriptor.h"
#include "helper/common/IPv4Address.h"
#include "helper/journal/Journal.h"
#include "helper/network/Routing.h"
#include "helper/repair/Undo.h"
#include "linux/FolderPaths.h"

namespace helper {

namespace {

// To whose server an L2TP call went, if one did.
std::optional<in_addr> serverOfL2TP(const Journal &journal) {
  bool isL2TP = false;
  std::optional<in_addr> server;
  for (const JournalEntry &entry : journal.entries()) {
    isL2TP = isL2TP || std::holds_alternative<ProtectedFlow>(entry);
    if (const auto *added = std::get_if<AddedRules>(&entry))
      for (const PolicyRule &rule : added->rules)
        if (rule.kind == PolicyRule::Kind::wayToServer) server = rule.server;
  }
  return isL2TP ? server : std::nullopt;
}

// A file for each, named after it: the helper that repairs is not always the one that makes the next connection.
constexpr char kPrefix[] = "l2tp-not-told.";
// Servers that wait for an answer to their own question have given up by then.
constexpr std::time_t kServersMemory = 120;

void remember(const std::string &folder, in_addr server) {
  ::mkdir(folder.c_str(), 0700);
  const std::string path = folder + "/" + kPrefix + textOf(server);
  const vpnctl::FileDescriptor mark(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (mark) ::futimens(mark.get(), nullptr);
}

// The clock that stamps files. That of time() may be a tick behind it, and what was made just now would be of tomorrow.
std::time_t now() {
  timespec time{};
  ::clock_gettime(CLOCK_REALTIME, &time);
  return time.tv_sec;
}

std::set<std::string> remembered(const std::string &folder) {
  std::set<std::string> servers;
  std::error_code ignored;
  for (const std::filesystem::path path : linux::pathsIn(folder, ignored)) {
    const std::string name = path.filename();
    struct stat mark {};
    if (!name.starts_with(kPrefix) || ::lstat(path.c_str(), &mark) < 0) continue;
    const std::time_t age = now() - mark.st_mtime;
    if (age >= 0 && age < kServersMemory)
      servers.insert(name.substr(std::strlen(kPrefix)));
    else
      ::unlink(path.c_str());
  }
  if (servers.empty()) ::rmdir(folder.c_str());  // if nothing else is in it
  return servers;
}

void repairNow(const std::function<void(const std::string &)> &say, const JournalBases &bases) {
  const auto until = std::chrono::steady_clock::now() + kRepairDeadline;
  std::vector<vpnctl::Error> errors;
  // The files first, as at a link's own end.
  std::vector<Journal> journals = Journal::abandoned(bases.lasting, errors);
  for (Journal &journal : Journal::abandoned(bases.running, errors)) journals.push_back(std::move(journal));
  for (const auto &error : errors)
    say("What an earlier connection did to this machine cannot be read: " + error.message + ".");
  if (journals.empty()) return;
  for (const Journal &journal : journals)
    if (const auto server = serverOfL2TP(journal)) remember(bases.running, *server);
  const auto routing = NetlinkRouting::open();
  if (!routing) return say("An earlier connection cannot be undone: " + routing.error().message + ".");
  say("An earlier connection ended without tidying up; doing it now.");
  Undo undo(**routing, say, until);
  for (Journal &journal : journals) undo.takeBackForGood(journal);
}

}  // namespace

std::set<std::string> repairAbandoned(const std::function<void(const std::string &)> &say, const JournalBases &bases) {
  repairNow(say, bases);
  return remembered(bases.running);
}

}  // namespace helper
