#include "helper/repair/Undo.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

#include "helper/ike/XfrmTable.h"
#include "helper/network/FileReplacement.h"
#include "helper/ppp/PPPPIDFile.h"
#include "linux/ChildProcess.h"
#include "linux/Process.h"

namespace helper {

namespace {

constexpr std::chrono::milliseconds kProcessGrace{2500};
constexpr std::chrono::milliseconds kKillGrace{200};  // however late it is: the kernel ends it at once
// resolvconf removes its record first and then runs its scripts: stopped in between, it would not do so any more.
constexpr std::chrono::milliseconds kProgramDeadline{30000};

}  // namespace

Undo::Undo(Routing &routing, std::function<void(const std::string &)> complain, Clock::time_point deadline)
    : routing_(routing), complain_(std::move(complain)), deadline_(deadline) {}

bool Undo::isLate() {
  if (late_ || Clock::now() < deadline_) return late_;
  complain_(
      "Not everything that a connection did to this machine could be taken back in time; the next one "
      "goes on with it.");
  return late_ = true;
}

std::chrono::milliseconds Undo::within(std::chrono::milliseconds patience) const {
  const auto left = std::chrono::floor<std::chrono::milliseconds>(deadline_ - Clock::now());
  return std::clamp(left, std::chrono::milliseconds(0), patience);
}

void Undo::takeBack(Journal &journal) {
  if (Journal *lasting = journal.lasting(); lasting != nullptr) takeBackAll(*lasting);
  takeBackAll(journal);
}

void Undo::takeBackForGood(Journal &journal) {
  forGood_ = true;
  takeBack(journal);
  forGood_ = false;
}

void Undo::takeBackAll(Journal &journal) {
  for (std::size_t index = journal.entries().size(); index-- > 0 && !isLate();) {
    const bool undone = std::visit(
        [&](const auto &entry) {
          if constexpr (std::is_same_v<decltype(entry), const ReplacedFile &>) {
            takeBack(journal, index);  // forgets its entry itself: other links look there
            return false;
          } else {
            return takeBack(entry);
          }
        },
        journal.entries()[index]);
    // When even this cannot be written, the worst that follows is that something is undone twice, which does no harm.
    if (undone) static_cast<void>(journal.forget(index));
  }
  if (journal.entries().empty()) journal.remove();
}

bool Undo::takeBack(const StartedProcess &entry) {
  const auto process = linux::Process::find(entry.pid, entry.startTime);
  if (!process) {
    complain_("Whether the process " + std::to_string(entry.pid) +
              " of a connection still runs cannot be seen: " + process.error().message + "; end it if it does.");
    return false;
  }
  // What is left of the time after the first wait, but no less than the kernel needs.
  const auto grace = within(kProcessGrace);
  if (*process && !process->end(grace, std::max(within(2 * kProcessGrace) - grace, kKillGrace))) {
    complain_("The process " + std::to_string(entry.pid) + " of a connection cannot be ended.");
    return false;
  }
  // Unless the number is somebody else's by now, the file is a killed pppd's.
  if (::kill(entry.pid, 0) < 0 && errno == ESRCH) removePIDFileOfPPPD(entry.pid);
  return true;
}

bool Undo::takeBack(const AddedRules &entry) {
  bool done = true;
  for (auto rule = entry.rules.rbegin(); rule != entry.rules.rend(); ++rule) {
    const auto removed = routing_.remove(*rule);
    if (removed) continue;
    complain_("A routing rule could not be taken back: " + removed.error().message + ".");
    done = false;
  }
  return done;
}

bool Undo::takeBack(const FilledTable &entry) {
  const auto cleared = routing_.clear(entry);
  if (!cleared) complain_("A routing table could not be taken back: " + cleared.error().message + ".");
  return static_cast<bool>(cleared);
}

bool Undo::takeBack(const ResolvconfRecord &entry) {
  // Without the program nobody reads its records.
  if (::access(entry.program.c_str(), X_OK) < 0) return true;
  auto program =
      linux::ChildProcess::spawn({entry.program, "-d", entry.key}, {"PATH=/usr/sbin:/usr/bin:/sbin:/bin"}, {});
  std::string how;
  if (!program) {
    how = "cannot be started: " + program.error().message;
  } else if (!program->waitFor(within(kProgramDeadline))) {
    how = "does not end";
    // One that has not had its time may end well yet.
    if (Clock::now() >= deadline_) program->leaveRunning();
  } else if (const linux::ChildProcess::End &end = program->end(); !end.exited) {
    how = "was ended by signal " + std::to_string(end.code);
  } else if (end.code != 0) {
    how = "ends with status " + std::to_string(end.code);
  }
  if (how.empty()) return true;
  complain_("The name servers of the connection could not be taken back: " + entry.program + " -d " + entry.key + " " +
            how + ".");
  return false;
}

void Undo::takeBack(Journal &journal, std::size_t index) {
  ReplacedFile file = std::get<ReplacedFile>(journal.entries()[index]);
  const auto restored = takeFileBack(journal, index);
  if (!restored)
    return complain_("The file " + file.path + " could not be put back: " + restored.error().message + ".");
  if (*restored) return;
  if (!file.takenOver)
    complain_("The file " + file.path + " was changed by somebody else during the connection and stays as it is.");
  file.takenOver = true;
  static_cast<void>(forGood_ ? journal.forget(index) : journal.replace(index, std::move(file)));
}

bool Undo::takeBack(const ProtectedFlow &entry) {
  const auto taken = removeIPSecStates(entry.reqid);
  if (!taken) complain_("An IPSec association of a connection could not be taken back: " + taken.error().message + ".");
  return static_cast<bool>(taken);
}

}  // namespace helper
