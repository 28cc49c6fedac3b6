// Takes back what a journal holds, newest first. Used at the end of each link, and by the next helper for what a dead
// one left.
//
// Blocks: for a process of a dead helper that does not end (with a deadline), for the resolvconf program.

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

  // Everything, then the journal's folder.
  void finish(Journal &journal);

 private:
  void undo(const StartedProcess &entry);
  void undo(const AddedRoute &entry);
  void undo(const ResolvconfRecord &entry);
  void undo(const ReplacedFile &entry);

  RouteTable &routes_;
  std::function<void(const std::string &)> complain_;
};

}  // namespace helper
