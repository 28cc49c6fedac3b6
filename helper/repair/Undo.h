// Takes back what a journal holds, newest first. Used at the end of each link, and by the next helper for what a dead
// one left.
//
// Blocks, with a deadline for each: for a process of a dead helper that does not end, for the resolvconf program, for
// the IKE daemon; and with one for everything, for who has others waiting.

#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "helper/journal/Journal.h"
#include "helper/network/Routing.h"

namespace helper {

class Undo {
 public:
  using Clock = std::chrono::steady_clock;

  // COMPLAIN gets a sentence for each change that could not be taken back. ROUTING outlives it. Nothing is begun after
  // DEADLINE.
  Undo(Routing &routing, std::function<void(const std::string &sentence)> complain,
       Clock::time_point deadline = Clock::time_point::max());

  // Everything, then the journal's folder. What cannot be taken back now, or in time, keeps its entry, and the journal
  // its folder: the next helper tries again. So does a file that somebody else has changed since: he may put back what
  // he found there, which was ours.
  void takeBack(Journal &journal);
  // As takeBack(), for the last time that such files are looked at.
  void takeBackForGood(Journal &journal);

 private:
  void takeBackAll(Journal &journal);
  // False: its entry is to be kept.
  bool takeBack(const StartedProcess &entry);
  bool takeBack(const AddedRules &entry);
  bool takeBack(const FilledTable &entry);
  bool takeBack(const ResolvconfRecord &entry);
  void takeBack(Journal &journal, std::size_t index);
  bool takeBack(const ProtectedFlow &entry);

  bool isLate();
  // Of PATIENCE, what the deadline leaves.
  std::chrono::milliseconds within(std::chrono::milliseconds patience) const;

  Routing &routing_;
  std::function<void(const std::string &)> complain_;
  const Clock::time_point deadline_;
  bool late_ = false;  // and that has been said
  bool forGood_ = false;
};

}  // namespace helper
