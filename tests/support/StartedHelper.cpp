#include "tests/support/StartedHelper.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <utility>

namespace helper::testing {

StartedHelper::StartedHelper(const std::string &program, Talk talk) {
  auto launched = platform::launchHelper(program);
  EXPECT_TRUE(launched) << program;
  if (!launched) return;
  pid_ = launched->process->pid();
  process_.reset(static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0)));
  // The connection would take the end that we ask for.
  launched->process->leaveRunning();
  launched->process.reset();
  if (talk == Talk::none) {
    socket_ = std::move(launched->socket);
    return;
  }
  auto connection = platform::HelperConnection::connect(std::move(*launched));
  if (!connection) return;  // it has ended already
  connection_ = std::move(*connection);
  ready_ = connection_->ping();
}

StartedHelper::~StartedHelper() {
  if (!process_) return;
  ::syscall(SYS_pidfd_send_signal, process_.get(), SIGKILL, nullptr, 0);
  wait();
}

long StartedHelper::memory(const std::string &key) const {
  std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
  std::string word;
  long value = -1;
  while (status >> word)
    if (word == key + ":" && status >> value) return value;
  return -1;
}

void StartedHelper::leave() {
  connection_.reset();
  socket_.reset();
}

std::optional<StartedHelper::End> StartedHelper::wait(std::chrono::milliseconds patience) {
  pollfd ended = {process_.get(), POLLIN, 0};
  if (::poll(&ended, 1, static_cast<int>(patience.count())) != 1) return std::nullopt;
  int status = 0;
  rusage usage = {};
  if (::wait4(pid_, &status, 0, &usage) != pid_) return std::nullopt;
  process_.reset();
  if (WIFEXITED(status)) return End{true, WEXITSTATUS(status), usage.ru_maxrss};
  return End{false, WTERMSIG(status), usage.ru_maxrss};
}

}  // namespace helper::testing
