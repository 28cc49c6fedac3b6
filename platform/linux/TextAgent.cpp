#include "platform/linux/TextAgent.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "foundation/FileDescriptor.h"
#include "linux/Process.h"

namespace platform {

using vpnctl::FileDescriptor;

namespace {

constexpr char kProgram[] = "/usr/bin/pkttyagent";
constexpr int kReadyPatience = 5000;  // milliseconds
constexpr std::chrono::milliseconds kEndPatience{1000};

// Whoever is in the background would be stopped as soon as he reads.
bool hasTerminal() {
  const FileDescriptor terminal(::open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY));
  return terminal && ::tcgetpgrp(terminal.get()) == ::getpgrp();
}

// What it needs of our environment: the language in which it asks.
std::vector<std::string> environment() {
  std::vector<std::string> result{"PATH=/usr/bin:/bin"};
  for (const char *name : {"LANG", "LC_ALL", "LC_MESSAGES", "TERM"})
    if (const char *value = ::getenv(name)) result.push_back(std::string(name) + "=" + value);
  return result;
}

}  // namespace

bool TextAgent::isPossible() { return hasTerminal() && ::access(kProgram, X_OK) == 0; }

std::unique_ptr<TextAgent> TextAgent::start() {
  const auto startTime = linux::startTimeOf(::getpid());
  if (!startTime) return nullptr;
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) < 0) return nullptr;
  const FileDescriptor ready(ends[0]);
  FileDescriptor itsEnd(ends[1]);
  // It closes descriptor 0, our pipe's end, when polkit knows it; it reads from the terminal itself.
  auto process = linux::ChildProcess::spawn(
      {kProgram, "--notify-fd", "0", "--process", std::to_string(::getpid()) + "," + std::to_string(*startTime)},
      environment(), {.input = itsEnd.get(), .ownSession = false});
  if (!process) return nullptr;
  itsEnd.reset();
  pollfd waiting{ready.get(), POLLIN, 0};
  ::poll(&waiting, 1, kReadyPatience);
  return std::unique_ptr<TextAgent>(new TextAgent(std::move(*process)));
}

TextAgent::~TextAgent() {
  process_.signal(SIGTERM);
  process_.waitFor(kEndPatience);
}

}  // namespace platform
