// A program with its standard input and output on pipes.

#pragma once

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <string>
#include <vector>

#include "foundation/FileDescriptor.h"

namespace platform::testing {

class PipedProcess {
 public:
  // COMMAND begins with the program's path.
  explicit PipedProcess(std::vector<std::string> command) {
    int input[2] = {-1, -1};
    int output[2] = {-1, -1};
    if (::pipe2(input, O_CLOEXEC) != 0 || ::pipe2(output, O_CLOEXEC) != 0) return;
    const vpnctl::FileDescriptor itsInput(input[0]);
    const vpnctl::FileDescriptor itsOutput(output[1]);
    input_.reset(input[1]);
    output_.reset(output[0]);
    std::vector<char *> arguments;
    for (std::string &word : command) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, itsInput.get(), STDIN_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, itsOutput.get(), STDOUT_FILENO);
    if (::posix_spawn(&pid_, arguments[0], &actions, nullptr, arguments.data(), environ) != 0) pid_ = -1;
    ::posix_spawn_file_actions_destroy(&actions);
  }
  PipedProcess(const PipedProcess &) = delete;
  PipedProcess &operator=(const PipedProcess &) = delete;
  ~PipedProcess() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }

  pid_t pid() const { return pid_; }

  // False when it ends without having written one, or takes longer than any test should.
  bool waitForByte() {
    pollfd wait = {output_.get(), POLLIN, 0};
    char byte = 0;
    return ::poll(&wait, 1, 20000) == 1 && ::read(output_.get(), &byte, 1) == 1;
  }

  // Ends its standard input and waits for its end: its exit status, or -1 when a signal ended it.
  int finish() {
    input_.reset();
    int status = 0;
    if (pid_ <= 0 || ::waitpid(pid_, &status, 0) != pid_) return -1;
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  pid_t pid_ = -1;
  vpnctl::FileDescriptor input_;
  vpnctl::FileDescriptor output_;
};

}  // namespace platform::testing
