// Starts a command and tells how long it takes until a link has an IPv4 address: observer LINK SIGNAL COMMAND
// [ARGUMENT...]
//
// Prints, one per line:
//   address SECONDS       from the start of the command to the kernel's word that LINK has an address
//   peak KIB NAME         for each process there is at that moment: the most memory it has had so far (VmHWM)
//   ended STATUS SECONDS  then the command got SIGNAL (a number): its wait status, and how long it took to end
// The command's own output goes to standard error. Status 0 only if all of this happened within a minute.
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

#include "Netlink.h"

using Clock = std::chrono::steady_clock;

static double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

static int millisecondsLeft(Clock::time_point deadline) {
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return left > 0 ? static_cast<int>(left) : 0;
}

static pid_t start(char **command) {
  pid_t pid = fork();
  if (pid == 0) {
    dup2(STDERR_FILENO, STDOUT_FILENO);
    execvp(command[0], command);
    _exit(127);
  }
  return pid;
}

// Until the link has an address; false if the command ends before, or the time is over.
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

static void printPeaks() {
  for (const auto &entry : std::filesystem::directory_iterator("/proc")) {
    std::ifstream status(entry.path() / "status");
    std::string name, word, peak;
    while (status >> word)
      if (word == "Name:")
        status >> name;
      else if (word == "VmHWM:")
        status >> peak;
    if (!peak.empty()) std::cout << "peak " << peak << " " << name << "\n";
  }
}

int main(int argc, char **argv) try {
  if (argc < 4) throw std::runtime_error("usage: observer LINK SIGNAL COMMAND [ARGUMENT...]");
  lab::Netlink netlink(NETLINK_ROUTE, RTMGRP_IPV4_IFADDR);
  auto began = Clock::now();
  pid_t pid = start(argv + 3);
  int command = pid > 0 ? static_cast<int>(syscall(SYS_pidfd_open, pid, 0)) : -1;
  if (command < 0) throw std::runtime_error("cannot start the command");
  bool up = awaitAddress(netlink, argv[1], command, began + std::chrono::minutes(1));
  if (up) {
    std::cout << "address " << secondsSince(began) << "\n";
    printPeaks();
  }
  auto stopped = Clock::now();
  kill(pid, std::stoi(argv[2]));
  pollfd wait{command, POLLIN, 0};
  bool ended = poll(&wait, 1, 60000) == 1;
  if (!ended) kill(pid, SIGKILL);
  int status = 0;
  waitpid(pid, &status, 0);
  std::cout << "ended " << status << " " << secondsSince(stopped) << "\n";
  return up && ended ? 0 : 1;
} catch (const std::exception &error) {
  std::cerr << "observer: " << error.what() << "\n";
  return 2;
}
