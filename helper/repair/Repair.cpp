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

bool repairAbandoned(const std::function<void(const std::string &)> &say, const JournalBases &bases) {
  const auto until = std::chrono::steady_clock::now() + kRepairDeadline;
  std::vector<foundation::Error> errors;
  // The files first, as at a link's own end.
  std::vector<Journal> journals = Journal::abandoned(bases.lasting, errors);
  for (Journal &journal : Journal::abandoned(bases.running, errors)) journals.push_back(std::move(journal));
  for (const auto &error : errors)
    say("What an earlier connection did to this machine cannot be read: " + error.message + ".");
  if (journals.empty()) return false;
  const bool wasL2TP = std::ranges::any_of(journals, usesIPSec);
  const auto routes = NetlinkRouteTable::open();
  if (!routes) {
    say("An earlier connection cannot be undone: " + routes.error().message + ".");
    return wasL2TP;
  }
  say("An earlier connection ended without tidying up; doing it now.");
  Undo undo(**routes, say, until);
  for (Journal &journal : journals) undo.takeBackForGood(journal);
  return wasL2TP;
}

}  // namespace helper
