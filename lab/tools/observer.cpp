// Starts a command and tells how long it takes until a link has an IPv4 address, and until all is over again:
// observer LINK STOP [--after TEXT] COMMAND [ARGUMENT...]
//
// Prints, one per line:
//   address SECONDS       from the start of the command to the kernel's word that LINK has an address
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
#include <net/if.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
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

// Until the link has an address; false if the command ends before, or the time is over. A command that only orders the
// link may end when it has one.
static bool awaitAddress(lab::Netlink &netlink, const std::string &link, int command, Clock::time_point deadline) {
  for (bool found = false; !found;) {
    pollfd waits[] = {{netlink.fd(), POLLIN, 0}, {command, POLLIN, 0}};
    if (poll(waits, 2, millisecondsLeft(deadline)) <= 0 || (waits[1].revents && !waits[0].revents)) return false;
    netlink.receive([&](const nlmsghdr &head) {
      const auto *address = static_cast<const ifaddrmsg *>(NLMSG_DATA(&head));
      char name[IF_NAMESIZE];
      found |= head.nlmsg_type == RTM_NEWADDR && if_indextoname(address->ifa_index, name) && link == name;
    });
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

// Copies what the command prints until a line is the text, and goes on copying on a thread of its own, lest the command
// find its pipe full. False if the output or the time ends before.
static bool awaitLine(int output, const std::string &text, Clock::time_point deadline) {
  std::string line;
  auto copyLine = [output, &line] {
    char byte = 0;
    for (line.clear(); read(output, &byte, 1) == 1 && byte != '\n';) line += byte;
    std::cerr << line << std::endl;
    return byte == '\n';
  };
  while (ended(output, deadline) && copyLine())
    if (line == text) {
      std::thread([output] {
        char buffer[1024];
        for (ssize_t got; (got = read(output, buffer, sizeof buffer)) > 0;) std::cerr.write(buffer, got);
      }).detach();
      return true;
    }
  return false;
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
  lab::Netlink netlink(NETLINK_ROUTE, RTMGRP_IPV4_IFADDR);
  std::set<pid_t> before = processes();
  int output[2] = {-1, STDERR_FILENO};
  if (hasText && pipe2(output, O_CLOEXEC) != 0) throw std::runtime_error("cannot make a pipe");
  auto began = Clock::now();
  auto deadline = began + std::chrono::minutes(1);
  Child command = start(words, output[1]);
  if (hasText) close(output[1]);
  bool up = awaitAddress(netlink, argv[1], command.ended, deadline);
  if (up) {
    std::cout << "address " << secondsSince(began) << "\n";
    up = !hasText || awaitLine(output[0], argv[4], deadline);
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
