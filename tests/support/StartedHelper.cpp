#include "tests/support/StartedHelper.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
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
  process_ = std::move(linux::Process::ofChild(pid_).value());
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
  process_.signal(SIGKILL);
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
  if (!process_.waitFor(patience)) return std::nullopt;
  int status = 0;
  rusage usage = {};
  if (::wait4(pid_, &status, 0, &usage) != pid_) return std::nullopt;
  process_.reset();
  if (WIFEXITED(status)) return End{true, WEXITSTATUS(status), usage.ru_maxrss};
  return End{false, WTERMSIG(status), usage.ru_maxrss};
}

}  // namespace helper::testing
