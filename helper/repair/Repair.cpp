#include "helper/repair/Repair.h"

#include <algorithm>
#include <vector>

#include "helper/journal/Journal.h"
#include "helper/network/RouteTable.h"
#include "helper/repair/Undo.h"

namespace helper {

namespace {

bool usesIPSec(const Journal &journal) {
  return std::ranges::any_of(
      journal.entries(), [](const JournalEntry &entry) { return std::holds_alternative<LoadedConnection>(entry); });
}

}  // namespace

bool repairAbandoned(PPPLog &log) {
  const auto until = std::chrono::steady_clock::now() + kRepairDeadline;
  std::vector<foundation::Error> errors;
  std::vector<Journal> journals = Journal::abandoned(Journal::kBase, errors);
  for (const auto &error : errors)
    log.write("What an earlier connection did to this machine cannot be read: " + error.message + ".");
  if (journals.empty()) return false;
  const bool wasL2TP = std::ranges::any_of(journals, usesIPSec);
  const auto routes = NetlinkRouteTable::open();
  if (!routes) {
    log.write("An earlier connection cannot be undone: " + routes.error().message + ".");
    return wasL2TP;
  }
  Undo undo(
      **routes, [&log](const std::string &sentence) { log.write(sentence); }, until);
  for (Journal &journal : journals) {
    log.write("An earlier connection ended without tidying up; doing it now.");
    undo.takeBack(journal);
  }
  return wasL2TP;
}

}  // namespace helper
