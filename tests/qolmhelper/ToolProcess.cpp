#include "tests/qolmhelper/ToolProcess.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <stdexcept>

extern char **environ;

namespace TN {
namespace {

constexpr std::chrono::seconds kPatience{40};  // sanitizers on a loaded machine

std::vector<char *> pointers(std::vector<std::string> &texts) {
  std::vector<char *> result;
  for (std::string &text : texts) result.push_back(text.data());
  result.push_back(nullptr);
  return result;
}

struct Pipe {
  vpnctl::FileDescriptor readEnd, writeEnd;
  Pipe() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error("pipe2");
    readEnd.reset(ends[0]);
    writeEnd.reset(ends[1]);
  }
};

// Reads once; closes at the end.
void readOnce(vpnctl::FileDescriptor &pipe, std::string &text) {
  std::array<char, 4096> block;
  const ssize_t size = read(pipe.get(), block.data(), block.size());
  if (size > 0)
    text.append(block.data(), static_cast<std::size_t>(size));
  else if (size == 0 || errno != EINTR)
    pipe.reset();
}

}  // namespace

std::string configurationFor(const std::string &protocol) {
  std::string configuration = kConfiguration;
  return configuration.replace(configuration.find(kProtocol), kProtocol.size(), protocol);
}

std::vector<std::string> Outcome::callNames() const {
  std::vector<std::string> names;
  for (const std::string &call : calls) names.push_back(call.substr(0, call.find('(')));
  return names;
}

int Outcome::count(const std::string &call) const {
  const std::vector<std::string> names = callNames();
  return static_cast<int>(std::count(names.begin(), names.end(), call));
}

ToolProcess::ToolProcess(Scene scene) : deadline_(std::chrono::steady_clock::now() + kPatience) {
  if (scene.configuration) support::writeFile(folder_.path("config.qolm"), *scene.configuration);
  for (const auto &[name, text] : scene.files) support::writeFile(folder_.path(name), text);
  for (const auto &[name, mode] : scene.fileModes)
    std::filesystem::permissions(folder_.path(name), static_cast<std::filesystem::perms>(mode));
  support::writeFile(folder_.path("script"), scene.script);
  if (scene.hasPPPLog) support::writeFile(pppLog(), "an old line\n");

  std::vector<std::string> command = scene.launcher;
  command.push_back(scene.program.empty() ? VPNCTL_FAKE : scene.program);
  command.insert(command.end(), scene.arguments.begin(), scene.arguments.end());
  std::vector<std::string> environment;
  for (char **entry = environ; *entry != nullptr; ++entry) environment.emplace_back(*entry);
  for (const auto &[name, value] : scene.environment) environment.push_back(name + "=" + value);
  environment.push_back("VPNCTL_FAKE_SCRIPT=" + folder_.path("script"));
  environment.push_back("VPNCTL_FAKE_RECORD=" + folder_.path("record"));
  environment.push_back("VPNCTL_FAKE_PPP_LOG=" + pppLog());

  Pipe output;
  Pipe error;
  if (!scene.hasReader) output.readEnd.reset();
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addchdir_np(&actions, folder_.path().c_str());
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, output.writeEnd.get(), 1);
  posix_spawn_file_actions_adddup2(&actions, error.writeEnd.get(), 2);
  for (const int fd : scene.closed) posix_spawn_file_actions_addclose(&actions, fd);
  const int result = posix_spawnp(&pid_, command.front().c_str(), &actions, nullptr, pointers(command).data(),
                                  pointers(environment).data());
  posix_spawn_file_actions_destroy(&actions);
  if (result != 0) throw std::runtime_error("cannot start " + command.front());
  outputPipe_ = std::move(output.readEnd);
  errorPipe_ = std::move(error.readEnd);
}

ToolProcess::~ToolProcess() {
  if (pid_ < 0) return;
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
}

bool ToolProcess::readSome() {
  if (!outputPipe_ && !errorPipe_) return false;
  std::array<pollfd, 2> ready{{{outputPipe_.get(), POLLIN, 0}, {errorPipe_.get(), POLLIN, 0}}};
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline_ - std::chrono::steady_clock::now());
  const int count = poll(ready.data(), ready.size(), static_cast<int>(std::max<long>(left.count(), 0)));
  if (count == 0) killAtDeadline();
  if (ready[0].revents != 0) readOnce(outputPipe_, output_);
  if (ready[1].revents != 0) readOnce(errorPipe_, error_);
  return true;
}

void ToolProcess::killAtDeadline() {
  ADD_FAILURE() << "still running at the deadline; standard error so far:\n" << error_;
  kill(pid_, SIGKILL);
  deadline_ = std::chrono::steady_clock::time_point::max();  // the pipes end now
}

bool ToolProcess::waitForError(const std::string &text) {
  while (error_.find(text) == std::string::npos) {
    if (readSome()) continue;
    ADD_FAILURE() << "ended before it said \"" << text << "\"; standard error:\n" << error_;
    return false;
  }
  return true;
}

void ToolProcess::send(int signal) { kill(pid_, signal); }

Outcome ToolProcess::finish() {
  while (readSome()) {
  }
  int status = 0;
  while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  pid_ = -1;
  Outcome outcome;
  outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  outcome.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
  outcome.output = output_;
  outcome.error = error_;
  std::istringstream record(folder_.read("record"));
  for (std::string line; std::getline(record, line);) outcome.calls.push_back(line);
  return outcome;
}

Outcome run(Scene scene) { return ToolProcess(std::move(scene)).finish(); }

}  // namespace TN
