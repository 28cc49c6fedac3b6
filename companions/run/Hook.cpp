#include "companions/run/Hook.h"

#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>
#include <utility>

namespace companions {

using linux::ChildProcess;

namespace {

constexpr std::chrono::seconds kGrace{2};

vpnctl::Status statusOf(const std::string &program, const ChildProcess::End &end, bool late) {
  if (late) return vpnctl::Error{"Hook", 0, program + " did not end in time"};
  if (!end.exited) return vpnctl::Error{"Hook", end.code, program + " was ended by signal " + std::to_string(end.code)};
  if (end.code != 0) return vpnctl::Error{"Hook", end.code, program + " ended with status " + std::to_string(end.code)};
  return {};
}

}  // namespace

vpnctl::Result<std::unique_ptr<Hook>> Hook::start(sd_event *event, const std::string &program,
                                                  const std::vector<std::string> &environment,
                                                  std::chrono::milliseconds deadline, Handler handler) {
  auto child = ChildProcess::spawn({program}, environment, {.error = STDERR_FILENO});
  if (!child) return child.error();
  return std::unique_ptr<Hook>(new Hook(event, std::move(*child), program, deadline, std::move(handler)));
}

Hook::Hook(sd_event *event, ChildProcess child, std::string program, std::chrono::milliseconds deadline,
           Handler handler)
    : program_(std::move(program)), child_(std::move(child)) {
  child_.watch(event, [this, handler = std::move(handler)](const ChildProcess::End &end) {
    deadline_.reset();
    handler(statusOf(program_, end, late_));
  });
  deadline_ = linux::EventSource::timer(event, deadline, [this] {
    late_ = true;
    stop();
  });
}

void Hook::stop() { child_.terminate(kGrace); }

vpnctl::Result<std::string> runnableProgram(const std::string &program) {
  std::error_code error;
  const std::filesystem::path path = std::filesystem::absolute(program, error);
  if (error) return vpnctl::errnoError(error.value(), "run " + program);
  if (!std::filesystem::is_regular_file(path, error))
    return vpnctl::errnoError(error ? error.value() : EACCES, "run " + program);
  if (::access(path.c_str(), X_OK) < 0) return vpnctl::errnoError(errno, "run " + program);
  return path.string();
}

}  // namespace companions
