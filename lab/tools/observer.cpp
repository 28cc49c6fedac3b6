// Starts a command and tells how long it takes until a link has an IPv4 address, and until all is over again:
// observer LINK STOP [--after TEXT] COMMAND [ARGUMENT...]
//
// Prints, one per line, SECONDS from the start of the command:
//   association SECONDS   the kernel's word of each IPSec association that comes
//   link SECONDS          ... that LINK is there
//   address SECONDS       ... that LINK has an address
//   line SECONDS TEXT     with --after, each line that the command printed until then
//   peak KIB NAME         for each process there is at that moment: the most memory it has had so far (VmHWM)
// Then comes STOP, with --after only when the command has printed a line that is TEXT. If it is a number, the command
// gets that signal; otherwise the command is waited for, and STOP is run in its turn (words between blanks). From
// there:
//   ended STATUS SECONDS  until what was stopped, or was run to stop, ended; its wait status
//   gone SECONDS          until the kernel's word that LINK is no more
//   clean SECONDS         until LINK and every process that has come since the start were gone (only after a signal)
// The command's own output goes to standard error. Status 0 only if each of the two halves happened within a minute.
#include <fcntl.h>
#include <linux/rtnetlink.h>
#include <linux/xfrm.h>
#include <net/if.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <set>
#include <sstream>
#include <thread>

#include "Netlink.h"

using Clock = std::chrono::steady_clock;

static double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

static int millisecondsLeft(Clock::time_point deadline) {
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return left > 0 ? static_cast<int>(left) : 0;
}

// A child with a descriptor that becomes readable at its end.
struct Child {
  pid_t pid = -1;
  int ended = -1;
  int status = 0;
};

static int openProcess(pid_t pid) { return static_cast<int>(syscall(SYS_pidfd_open, pid, 0)); }

static Child start(char **command, int output = STDERR_FILENO) {
  Child child;
  child.pid = fork();
  if (child.pid == 0) {
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    execvp(command[0], command);
    _exit(127);
  }
  child.ended = child.pid > 0 ? openProcess(child.pid) : -1;
  if (child.ended < 0) throw std::runtime_error("cannot start the command");
  return child;
}

static Child startWords(const std::string &words) {
  std::istringstream in(words);
  std::vector<std::string> parts;
  for (std::string part; in >> part;) parts.push_back(part);
  std::vector<char *> command;
  for (std::string &part : parts) command.push_back(part.data());
  command.push_back(nullptr);
  return start(command.data());
}

static bool ended(int process, Clock::time_point deadline) {
  pollfd wait{process, POLLIN, 0};
  return poll(&wait, 1, millisecondsLeft(deadline)) == 1;
}

static bool awaitEnd(Child &child, Clock::time_point deadline) {
  if (!ended(child.ended, deadline)) return false;
  waitpid(child.pid, &child.status, 0);
  return true;
}

// The whole lines that the command prints, each when it has come.
class Lines {
 public:
  explicit Lines(int output) : m_output(output) {}

  // Blocks until there is something; false at the end of the output.
  bool read(const std::function<void(const std::string &)> &take) {
    char buffer[1024];
    const ssize_t got = ::read(m_output, buffer, sizeof buffer);
    if (got <= 0) return false;
    std::cerr.write(buffer, got).flush();
    m_text.append(buffer, static_cast<size_t>(got));
    for (size_t end; (end = m_text.find('\n')) != std::string::npos; m_text.erase(0, end + 1))
      take(m_text.substr(0, end));
    return true;
  }

 private:
  int m_output;
  std::string m_text;
};

// What is told of a connection that comes up.
struct Arrival {
  std::string link;
  const char *text;  // the line after which the command counts it as complete; null: none
  int command;       // readable when the command has ended
  int output;        // of the command; only with a text
  Clock::time_point began;
};

// Until the link has an address, and the text has come; false if the command ends before, or the time is over. A
// command that only orders the link may end when it has one.
static bool awaitConnection(lab::Netlink &links, lab::Netlink &associations, const Arrival &arrival,
                            Clock::time_point deadline) {
  Lines lines(arrival.output);
  bool linked = false, addressed = false, complete = arrival.text == nullptr;
  auto tell = [&arrival](const char *what, const std::string &more = {}) {
    std::cout << what << " " << secondsSince(arrival.began) << more << "\n";
  };
  auto named = [&arrival](unsigned index) {
    char name[IF_NAMESIZE];
    return if_indextoname(index, name) && arrival.link == name;
  };
  while (!addressed || !complete) {
    pollfd waits[] = {{links.fd(), POLLIN, 0},
                      {associations.fd(), POLLIN, 0},
                      {complete ? -1 : arrival.output, POLLIN, 0},
                      {arrival.command, POLLIN, 0}};
    if (poll(waits, 4, millisecondsLeft(deadline)) <= 0) return false;
    if (waits[0].revents)
      links.receive([&](const nlmsghdr &head) {
        if (!linked && head.nlmsg_type == RTM_NEWLINK &&
            named(static_cast<unsigned>(static_cast<const ifinfomsg *>(NLMSG_DATA(&head))->ifi_index))) {
          linked = true;
          tell("link");
        }
        if (!addressed && head.nlmsg_type == RTM_NEWADDR &&
            named(static_cast<const ifaddrmsg *>(NLMSG_DATA(&head))->ifa_index)) {
          addressed = true;
          tell("address");
        }
      });
    else if (waits[1].revents)
      associations.receive([&](const nlmsghdr &head) {
        if (head.nlmsg_type == XFRM_MSG_NEWSA || head.nlmsg_type == XFRM_MSG_UPDSA) tell("association");
      });
    else if (waits[2].revents) {
      const bool more = lines.read([&](const std::string &line) {
        if (complete) return;
        tell("line", " " + line);
        complete = line == arrival.text;
      });
      if (!more) return false;
    } else if (waits[3].revents)
      return false;
  }
  return true;
}

static std::set<pid_t> processes() {
  std::set<pid_t> all;
  for (const auto &entry : std::filesystem::directory_iterator("/proc")) {
    pid_t pid = atoi(entry.path().filename().c_str());
    if (pid > 0) all.insert(pid);
  }
  return all;
}

static std::vector<int> openProcessesSince(const std::set<pid_t> &before) {
  std::vector<int> opened;
  for (pid_t pid : processes()) {
    int process = before.count(pid) ? -1 : openProcess(pid);
    if (process >= 0) opened.push_back(process);
  }
  return opened;
}

static void printPeaks() {
  for (pid_t pid : processes()) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string name, word, peak;
    while (status >> word)
      if (word == "Name:")
        status >> name;
      else if (word == "VmHWM:")
        status >> peak;
    if (!peak.empty()) std::cout << "peak " << peak << " " << name << "\n";
  }
}

// Goes on copying what the command prints, lest it find its pipe full.
static void copyOn(int output) {
  std::thread([output] {
    char buffer[1024];
    for (ssize_t got; (got = read(output, buffer, sizeof buffer)) > 0;) std::cerr.write(buffer, got);
  }).detach();
}

// What the command has printed and nobody has read, for a look at why it did not do what was expected.
static void copyRest(int output) {
  char buffer[4096];
  fcntl(output, F_SETFL, O_NONBLOCK);
  for (ssize_t got; (got = read(output, buffer, sizeof buffer)) > 0;) std::cerr.write(buffer, got);
}

// The second half. False if something of it did not happen in time.
static bool stop(Child &command, const std::string &how, const std::string &link, const std::set<pid_t> &before) {
  lab::Netlink links(NETLINK_ROUTE, RTMGRP_LINK);
  bool bySignal = how.find_first_not_of("0123456789") == std::string::npos;
  std::vector<int> others = openProcessesSince(before);
  if (!bySignal && !awaitEnd(command, Clock::now() + std::chrono::minutes(1))) return false;
  auto began = Clock::now();
  auto deadline = began + std::chrono::minutes(1);
  Child stopper = command;
  if (bySignal)
    kill(command.pid, std::stoi(how));
  else
    stopper = startWords(how);
  // Whichever comes first, the other's time is not lost: each is asked for only when it is over.
  double endedAfter = -1, goneAfter = -1;
  while (endedAfter < 0 || goneAfter < 0) {
    pollfd waits[] = {{endedAfter < 0 ? stopper.ended : -1, POLLIN, 0}, {goneAfter < 0 ? links.fd() : -1, POLLIN, 0}};
    if (goneAfter < 0 && if_nametoindex(link.c_str()) == 0) {
      goneAfter = secondsSince(began);
      continue;
    }
    if (poll(waits, 2, millisecondsLeft(deadline)) <= 0) return false;
    if (waits[0].revents) {
      endedAfter = secondsSince(began);
      waitpid(stopper.pid, &stopper.status, 0);
    }
    if (waits[1].revents) links.receive([](const nlmsghdr &) {});
  }
  std::cout << "ended " << stopper.status << " " << endedAfter << "\ngone " << goneAfter << "\n";
  if (!bySignal) return true;
  for (int process : others)
    if (!ended(process, deadline)) return false;
  std::cout << "clean " << secondsSince(began) << "\n";
  return true;
}

int main(int argc, char **argv) try {
  bool hasText = argc > 5 && std::string(argv[3]) == "--after";
  char **words = argv + (hasText ? 5 : 3);
  if (argc < 4 || *words == nullptr)
    throw std::runtime_error("usage: observer LINK STOP [--after TEXT] COMMAND [ARGUMENT...]");
  lab::Netlink links(NETLINK_ROUTE, RTMGRP_LINK | RTMGRP_IPV4_IFADDR);
  lab::Netlink associations(NETLINK_XFRM, 1U << (XFRMNLGRP_SA - 1));
  std::set<pid_t> before = processes();
  int output[2] = {-1, STDERR_FILENO};
  if (hasText && pipe2(output, O_CLOEXEC) != 0) throw std::runtime_error("cannot make a pipe");
  auto began = Clock::now();
  auto deadline = began + std::chrono::minutes(1);
  Child command = start(words, output[1]);
  if (hasText) close(output[1]);
  const Arrival arrival{argv[1], hasText ? argv[4] : nullptr, command.ended, output[0], began};
  const bool up = awaitConnection(links, associations, arrival, deadline);
  if (up) {
    if (hasText) copyOn(output[0]);
    printPeaks();
  }
  if (up && stop(command, argv[2], argv[1], before)) return 0;
  if (hasText && !up) copyRest(output[0]);
  kill(command.pid, SIGKILL);
  return 1;
} catch (const std::exception &error) {
  std::cerr << "observer: " << error.what() << "\n";
  return 2;
}
