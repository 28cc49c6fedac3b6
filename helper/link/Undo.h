// Takes back what a journal holds, newest first. Used at the end of each link, and by the next helper for what a dead
// one left.
//
// Blocks, with deadlines: for a process of a dead helper that does not end, for the resolvconf program, for the IKE
// daemon.

#pragma once

#include <functional>
#include <string>

#include "helper/link/Journal.h"
#include "helper/link/RouteTable.h"

namespace helper {

class Undo {
 public:
  // COMPLAIN gets a sentence for each change that could not be taken back. ROUTES outlives it.
  Undo(RouteTable &routes, std::function<void(const std::string &sentence)> complain);

  // Everything, then the journal's folder. What cannot be taken back now keeps its entry, and the journal its folder:
  // the next helper tries again.
  void finish(Journal &journal);

 private:
  // False: its entry is to be kept.
  bool undo(const StartedProcess &entry);
  bool undo(const AddedRoute &entry);
  bool undo(const ResolvconfRecord &entry);
  void putFileBack(Journal &journal, std::size_t index);
  bool undo(const LoadedConnection &entry);
  bool undo(const StartedDaemon &entry);

  RouteTable &routes_;
  std::function<void(const std::string &)> complain_;
};

}  // namespace helper
