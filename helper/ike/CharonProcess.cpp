#include "helper/ike/CharonProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <set>
#include <sstream>

#include "helper/common/UDPPortHolder.h"
#include "helper/ike/CharonLeftovers.h"
#include "helper/ike/RoutingRule.h"
#include "helper/ike/ViciConnection.h"
#include "linux/Process.h"

namespace helper {

using foundation::FileDescriptor;
using foundation::Result;
using foundation::Status;

namespace {

constexpr char kPackages[] = "on Debian: apt install strongswan-charon strongswan-swanctl";

FileDescriptor openUseFile(const std::string &path, int flags) {
  FileDescriptor file(::open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | flags, 0600));
  return file;
}

// False with the errno EWOULDBLOCK when others have it, and with ENOENT when it no longer bears its name.
bool lockUseFile(const FileDescriptor &file, int operation) {
  struct stat attributes {};
  if (::flock(file.get(), operation | LOCK_NB) < 0 || ::fstat(file.get(), &attributes) < 0) return false;
  errno = ENOENT;
  return attributes.st_nlink > 0;
}

bool isOthers(int lockError) { return lockError == EWOULDBLOCK || lockError == ENOENT; }

// Who is in the file: "PID START-TIME RULE-WAS-THERE". None also for one in which nothing stands yet.
std::optional<StartedDaemon> readUseFile(const FileDescriptor &lock, const std::string &path) {
  std::array<char, 128> text{};
  const ssize_t size = ::pread(lock.get(), text.data(), text.size(), 0);
  std::istringstream file(std::string(text.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0))));
  StartedDaemon daemon{-1, 0, path};
  if (!(file >> daemon.pid >> daemon.startTime >> daemon.ruleWasThere) || daemon.pid <= 1) return std::nullopt;
  return daemon;
}

bool writeUseFile(const FileDescriptor &file, const StartedDaemon &daemon) {
  const std::string text = std::to_string(daemon.pid) + " " + std::to_string(daemon.startTime) + " " +
                           (daemon.ruleWasThere ? "1" : "0") + "\n";
  return ::ftruncate(file.get(), 0) == 0 &&
         ::pwrite(file.get(), text.data(), text.size(), 0) == static_cast<ssize_t>(text.size());
}

// The process of DAEMON if it is at the other end of SOCKET; none if it surely is not.
Result<linux::Process> processThatAnswers(const StartedDaemon &daemon, int socket) {
  auto process = linux::Process::find(daemon.pid, daemon.startTime);
  if (!process || !*process) return process;
  ucred peer{};
  socklen_t size = sizeof peer;
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) < 0)
    return foundation::errnoError(errno, "ask for the process that answers");
  if (peer.pid != daemon.pid) process->reset();
  return process;
}

}  // namespace

CharonProcess::CharonProcess(sd_event *event, IPSecJournal &journal, Places places, const Deadlines &deadlines,
                             Handlers handlers)
    : event_(event),
      journal_(journal),
      places_(std::move(places)),
      deadlines_(deadlines),
      handlers_(std::move(handlers)) {}

CharonProcess::~CharonProcess() {
  if (!daemon_) return;
  useLock_.reset();
  process_.reset();
  if (child_) child_->leaveRunning();
  if (endDaemon(*daemon_, deadlines_.destruction, places_)) journal_.forgetDaemon(*daemon_);
}

void CharonProcess::start() {
  deadline_ = linux::EventSource::timer(
      event_, deadlines_.start,
      [this] {
        fail(child_ ? "The IKE daemon " + std::string(places_.programs.front()) +
                          " was started, but its control socket does not appear within " +
                          std::to_string(deadlines_.start.count() / 1000) + " seconds; it needs the vici plugin (" +
                          kPackages + ")."
                    : "Another vpnctl is starting or ending the IKE daemon and does not come to an end with it.");
      });
  nextTurn_ = linux::EventSource::soon(event_, [this] { attempt(); });
}

void CharonProcess::attempt() {
  if (!found()) launch();
}

void CharonProcess::tryAgain() {
  useLock_.reset();
  retry_ = linux::EventSource::timer(event_, deadlines_.retry, [this] { attempt(); });
}

// A charon that answers. True also when there is one that we have to wait for, or that is of no use.
bool CharonProcess::found() {
  for (const std::string &path : places_.controlSockets) {
    const auto socket = ViciConnection::connect(path);
    if (!socket && socket.error().code == EAGAIN) {
      tryAgain();  // it listens, but has more callers than it has let in: one that is just starting
      return true;
    }
    if (!socket) continue;
    if (const Status known = join(socket->get()); known)
      use(path);
    else if (known.error().code == EAGAIN)
      tryAgain();  // somebody is just starting or ending one
    else
      fail("The IKE daemon cannot be used: " + known.error().message + ".");
    return true;
  }
  return false;
}

// Makes us a user of the charon at the other end of SOCKET if a helper started it; the system's own has none. Each of
// the two mistakes would last: one of ours that is taken for the system's runs for ever, and the system's, taken for
// ours, is ended with all its tunnels. So it is ours only when the file names a process that surely still is the same
// and surely is the one that answers; it is the system's when one of that is surely not so; and whenever it cannot be
// seen it is not used. EAGAIN: not yet.
//
// Noted before it is locked: a user who dies between the two keeps nobody from ending it.
Status CharonProcess::join(int socket) {
  FileDescriptor lock = openUseFile(places_.useFile, 0);
  if (!lock) return errno == ENOENT ? Status() : foundation::errnoError(errno, "open " + places_.useFile);
  const auto named = readUseFile(lock, places_.useFile);
  linux::Process process;
  if (named) {
    auto answering = processThatAnswers(*named, socket);
    if (!answering) return answering.error();
    process = std::move(*answering);
  }
  if (process) {
    if (Status noted = journal_.noteDaemon(*named); !noted) return noted;
  }
  Status locked;
  if (!lockUseFile(lock, LOCK_SH))
    locked = foundation::errnoError(isOthers(errno) ? EAGAIN : errno, "lock " + places_.useFile);
  else if (readUseFile(lock, places_.useFile) != named)
    locked = foundation::errnoError(EAGAIN, "read " + places_.useFile);
  if (!process) return locked;
  if (!locked) {
    journal_.forgetDaemon(*named);
    return locked;
  }
  daemon_ = named;
  process_ = std::move(process);
  useLock_ = std::move(lock);
  return {};
}

bool CharonProcess::answers() const {
  return std::any_of(
      places_.controlSockets.begin(), places_.controlSockets.end(),
      [](const std::string &path) {
        const auto socket = ViciConnection::connect(path);
        return socket || socket.error().code == EAGAIN;
      });
}

std::optional<std::string> CharonProcess::obstacle() const {
  for (const std::uint16_t port : places_.ports) {
    if (isUDPPortFree(port)) continue;
    const std::string holder = udpPortHolder(port).value_or("an unknown program");
    if (holder.starts_with("charon"))
      return "The IKE daemon runs (" + holder +
             ") but does not answer on its control socket; it needs the vici plugin (on Debian: apt install "
             "strongswan-swanctl, then restart it when no other tunnel needs it).";
    return "UDP port " + std::to_string(port) + ", which the IKE daemon needs, is held by " + holder +
           "; end that first.";
  }
  return std::nullopt;
}

// Nothing is there that is not written down, at no moment: the process that is to be charon waits until both the
// journal and the file of its users name it, and the file is only made when the journal knows of it.
void CharonProcess::launch() {
  std::erase_if(places_.programs, [](const std::string &path) { return ::access(path.c_str(), X_OK) != 0; });
  if (places_.programs.empty())
    return fail("There is no IKE daemon on this machine; install strongSwan's charon with its vici plugin (" +
                std::string(kPackages) + ").");
  // Whoever starts or ends one has the file; then there is nothing to prepare yet.
  if (const FileDescriptor file = openUseFile(places_.useFile, 0); file && !lockUseFile(file, LOCK_EX))
    return tryAgain();
  if (const Status prepared = prepare(); !prepared) {
    withdraw();
    return fail("The IKE daemon cannot be started: " + prepared.error().message + ".");
  }
  useLock_ = openUseFile(places_.useFile, O_CREAT);
  if (!useLock_) {
    const std::string reason = foundation::errnoError(errno, "open " + places_.useFile).message;
    withdraw();
    return fail("The IKE daemon cannot be started: " + reason + ".");
  }
  // Another may have been quicker, or one that was just starting may answer by now.
  if (!lockUseFile(useLock_, LOCK_EX) || answers()) {
    withdraw();
    return tryAgain();
  }
  if (auto sentence = obstacle()) {
    withdraw();
    return fail(std::move(*sentence));
  }
  if (!writeUseFile(useLock_, *daemon_)) {
    withdraw();
    return fail("The start of the IKE daemon cannot be written down.");
  }
  if (const Status released = child_->release(); !released) {
    withdraw();
    return fail("The IKE daemon cannot be started: " + released.error().message + ".");
  }
  // From here on it is there, whatever fails: the destructor and stop() end it.
  watchSockets();
}

Status CharonProcess::prepare() {
  const bool ruleWasThere = hasCharonRule();
  auto child = linux::ChildProcess::prepare({places_.programs.front()},
                                            {"PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"});
  if (!child) return child.error();
  child_.emplace(std::move(*child));
  child_->watch(event_, [this](const linux::ChildProcess::End &end) { childEnded(end); });
  // What tells it from a later process of the same number, while it is our child and there for sure.
  const auto startTime = linux::startTimeOf(child_->pid());
  if (!startTime) return foundation::Error{"Process", 0, "its start cannot be read"};
  auto process = linux::Process::find(child_->pid(), *startTime);
  if (!process) return process.error();
  StartedDaemon daemon{child_->pid(), *startTime, places_.useFile, ruleWasThere};
  if (Status noted = journal_.noteDaemon(daemon); !noted) return noted;
  process_ = std::move(*process);
  daemon_ = std::move(daemon);
  return {};
}

// The waiting process ends, and what was made for it goes. A file that names another has users of its own.
void CharonProcess::withdraw() {
  child_.reset();
  process_.reset();
  if (useLock_ && lockUseFile(useLock_, LOCK_EX)) {
    const auto written = readUseFile(useLock_, places_.useFile);
    if (!written || written == daemon_) ::unlink(places_.useFile.c_str());
  }
  useLock_.reset();
  if (daemon_) journal_.forgetDaemon(*daemon_);
  daemon_.reset();
}

void CharonProcess::watchSockets() {
  inotify_.reset(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  std::set<std::string> folders;
  for (const std::filesystem::path path : places_.controlSockets) folders.insert(path.parent_path());
  for (const std::string &folder : folders)
    if (::inotify_add_watch(inotify_.get(), folder.c_str(), IN_CREATE | IN_MOVED_TO | IN_ATTRIB) < 0) inotify_.reset();
  if (inotify_)
    created_ = linux::EventSource::io(event_, inotify_.get(), EPOLLIN, [this](std::uint32_t) {
      std::array<char, 4096> events;  // of no interest but that they came
      while (::read(inotify_.get(), events.data(), events.size()) > 0) {
      }
      lookForSocket();
    });
  lookForSocket();
}

void CharonProcess::lookForSocket() {
  for (const std::string &path : places_.controlSockets) {
    const auto socket = ViciConnection::connect(path);
    if (socket) {
      ::flock(useLock_.get(), LOCK_SH);
      return use(path);
    }
    // It has its name but nobody listens yet, or lets us in: that is a matter of moments. Where nobody tells us of a
    // new name, we look.
    if (socket.error().code == ECONNREFUSED || socket.error().code == EAGAIN || !inotify_)
      retry_ = linux::EventSource::timer(event_, deadlines_.retry, [this] { lookForSocket(); });
  }
}

void CharonProcess::childEnded(const linux::ChildProcess::End &end) {
  if (ending_ || !deadline_) return;  // we asked for it, or it is the stream's end that tells
  fail("The IKE daemon " + places_.programs.front() + " ended while it started (" +
       (end.exited ? "status " : "signal ") + std::to_string(end.code) + "); the system's log says why.");
}

void CharonProcess::use(const std::string &controlSocket) {
  created_.reset();
  inotify_.reset();
  retry_.reset();
  deadline_.reset();
  handlers_.ready(controlSocket);
}

void CharonProcess::fail(std::string sentence) {
  created_.reset();
  retry_.reset();
  deadline_.reset();
  handlers_.failed(sentence);
}

void CharonProcess::stop() {
  created_.reset();
  retry_.reset();
  deadline_.reset();
  // When somebody else uses it, the lock is lost, and that is all there is to do.
  last_ = daemon_ && lockUseFile(useLock_, LOCK_EX);
  if (!last_) {
    settled_ = !daemon_ || isOthers(errno);
    nextTurn_ = linux::EventSource::soon(event_, [this] { finishStopping(); });
    return;
  }
  ending_ = true;
  settled_ = false;
  process_.signal(SIGTERM);
  created_ = linux::EventSource::io(
      event_, process_.descriptor(), EPOLLIN,
      [this](std::uint32_t) {
        settled_ = true;
        finishStopping();
      });
  deadline_ = linux::EventSource::timer(event_, deadlines_.stop, [this] { insist(); });
}

void CharonProcess::insist() {
  process_.signal(SIGKILL);
  deadline_ = linux::EventSource::timer(event_, deadlines_.stop, [this] { finishStopping(); });
}

void CharonProcess::finishStopping() {
  created_.reset();
  deadline_.reset();
  if (daemon_) {
    if (last_ && settled_) {
      if (child_) child_->waitFor(std::chrono::milliseconds(0));  // it has ended; only its number is left
      removeLeftovers(places_, *daemon_);
      ::unlink(daemon_->useFile.c_str());
    } else if (child_) {
      child_->leaveRunning();
    }
    useLock_.reset();
    process_.reset();
    // Otherwise it stays noted: whoever undoes the journal tries again, and tells.
    if (settled_) journal_.forgetDaemon(*daemon_);
    daemon_.reset();
  }
  handlers_.stopped();
}

Status CharonProcess::endDaemon(const StartedDaemon &daemon, std::chrono::milliseconds grace, const Places &places) {
  const FileDescriptor useFile = openUseFile(daemon.useFile, 0);
  // Without the file it has been ended by its last user; if somebody else is in it, it belongs to him.
  if (!useFile) return errno == ENOENT ? Status() : foundation::errnoError(errno, "open " + daemon.useFile);
  if (!lockUseFile(useFile, LOCK_EX))
    return isOthers(errno) ? Status() : foundation::errnoError(errno, "lock " + daemon.useFile);
  const auto written = readUseFile(useFile, daemon.useFile);
  if (written && *written != daemon) return {};
  const auto process = linux::Process::find(daemon.pid, daemon.startTime);
  if (!process) return process.error();
  if (*process && !process->end(grace, grace))
    return foundation::Error{"Process", 0, "process " + std::to_string(daemon.pid) + " does not end"};
  removeLeftovers(places, daemon);
  ::unlink(daemon.useFile.c_str());
  return {};
}

}  // namespace helper
