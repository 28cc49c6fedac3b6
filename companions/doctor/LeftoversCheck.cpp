#include "companions/doctor/LeftoversCheck.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <system_error>

#include "companions/doctor/FindingList.h"
#include "helper/journal/Journal.h"
#include "linux/FolderPaths.h"

namespace companions {

namespace fs = std::filesystem;

namespace {

constexpr char kAsRoot[] = "run vpnctl-doctor as root";

struct Base {
  std::string_view name;
  const std::string *folder;
  std::string what;  // that was left, in a sentence
  std::string why;
};

// False: what is there could not be seen.
bool lookAtJournals(const Base &base, const Situation &situation, FindingList &found) {
  const auto journals = helper::Journal::look(*base.folder);
  if (!journals) {
    found.unseen(base.name, "Whether " + base.what + " cannot be seen: " + journals.error().message + ".", base.why,
                 situation.isRoot() ? "" : kAsRoot);
    return false;
  }
  const std::string repair = (situation.isRoot() ? "" : "as root: ") + situation.machine.helper + " --repair";
  for (const auto &journal : *journals) {
    if (journal.alive) continue;
    const std::string unreadable = journal.readable ? "" : "; its journal cannot be read";
    found.hinders(base.name, "It seems that " + base.what + " (" + journal.folder + unreadable + ").", base.why,
                  repair);
  }
  return true;
}

void lookForBroken(const Machine &machine, FindingList &found) {
  std::error_code error;
  auto paths = linux::pathsIn(machine.journals, error);
  std::ranges::sort(paths);
  for (const std::string &path : paths)
    if (fs::path(path).filename().string().starts_with("broken."))
      found.hinders("leftovers.broken",
                    "Nobody could read what an earlier connection did to this machine: " + path + ".",
                    "Its routes and name servers may still be there, and nothing takes them back.",
                    "look at ip rule and /etc/resolv.conf, then rm -r " + path);
  if (error && error != std::errc::no_such_file_or_directory)
    found.unseen("leftovers.broken", "Whether there are journals that nobody can read cannot be seen.",
                 "Only root may look into " + machine.journals + ".", kAsRoot);
  found.fine("leftovers.broken", "There is no journal that nobody can read.");
}

// pppd writes its number into a file named after the interface.
bool hasPPPD(const Machine &machine, const std::string &interface) {
  std::string number;
  std::error_code ignored;
  std::ifstream(machine.run + "/" + interface + ".pid") >> number;
  return !number.empty() && fs::exists(machine.proc + "/" + number, ignored);
}

void lookAtInterfaces(const Machine &machine, FindingList &found) {
  std::error_code ignored;
  auto paths = linux::pathsIn(machine.sys + "/class/net", ignored);
  std::ranges::sort(paths);
  for (const std::string &path : paths) {
    const std::string name = fs::path(path).filename();
    if (name.starts_with("ppp") && !hasPPPD(machine, name))
      found.hinders("leftovers.interface", "The interface " + name + " has no pppd.",
                    "What is routed into it is lost, unless another program than pppd has made it.",
                    "ip route show dev " + name + ", then end the program that holds it");
  }
  found.fine("leftovers.interface", "Each interface of PPP's has its pppd.");
}

}  // namespace

Findings LeftoversCheck::look(const Situation &situation) {
  FindingList found;
  const Machine &machine = situation.machine;
  if (lookAtJournals({"leftovers.journal", &machine.journals, "a connection ended without tidying up",
                      "Its routes may still be there until the next connection takes them back."},
                     situation, found)) {
    found.fine("leftovers.journal", "Every connection has tidied up.");
    lookForBroken(machine, found);
  }
  lookAtJournals({"leftovers.file", &machine.lastingJournals, "a file of this machine is still an ended connection's",
                  "That is /etc/resolv.conf mostly, with name servers that nobody can reach any more."},
                 situation, found);
  found.fine("leftovers.file", "No file is an ended connection's.");
  lookAtInterfaces(machine, found);
  return found.take();
}

}  // namespace companions
