#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <mutex>
#include <utility>

#include "platform/SCErrorState.h"
#include "platform/SystemConfiguration.h"
#include "platform/fake/FakePlatform.h"
#include "platform/fake/FakeRunLoop.h"
#include "platform/fake/FakeText.h"

namespace platform {

using fake::FakePlatform;

struct SCNetworkConnection {
  SCNetworkConnectionCallBack callback = nullptr;
  SCNetworkConnectionContext context;
  std::int32_t status = 0;  // of the moment that was last told; the run loop's thread only
  vpnctl::Value extendedStatus;

  std::mutex mutex;  // guards the three below: a stop comes from any thread
  CFRunLoopRef runLoop;
  bool started = false;
  bool stopped = false;
};

namespace {

void appendToLog(const std::string &text) {
  const std::string &path = FakePlatform::instance().pppLogPath;
  const int file = open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
  if (file < 0 || write(file, text.data(), text.size()) != static_cast<ssize_t>(text.size())) std::abort();
  close(file);
}

struct Perform {
  SCNetworkConnectionRef connection;

  void operator()(const fake::StatusChange &change) const {
    connection->status = change.status;
    connection->extendedStatus = change.extendedStatus;
    setSCError(change.error);
    connection->callback(connection, change.argument.value_or(change.status), connection->context.info);
  }
  void operator()(const fake::LogText &log) const { appendToLog(log.text); }
  void operator()(const fake::Raise &raise) const { kill(getpid(), raise.signal); }
};

std::deque<CFRunLoop::Block> blocks(const SCNetworkConnectionRef &connection, const std::vector<fake::Step> &steps) {
  std::deque<CFRunLoop::Block> blocks;
  for (const fake::Step &step : steps) blocks.push_back([connection, step] { std::visit(Perform{connection}, step); });
  return blocks;
}

std::string name(const SCNetworkConnectionRef &connection) { return fake::reference(connection, "connection"); }

bool fails(std::int32_t code) {
  setSCError(code);
  return false;
}

bool nullArgument() {
  setSCErrorForNullArgument();
  return false;
}

}  // namespace

SCNetworkConnectionRef SCNetworkConnectionCreateWithServiceID(const std::optional<std::string> &serviceID,
                                                              SCNetworkConnectionCallBack callback,
                                                              const SCNetworkConnectionContext &context) {
  FakePlatform &platform = FakePlatform::instance();
  const bool plain = context.version == 0 && context.info != nullptr && context.retain == nullptr &&
                     context.release == nullptr && context.copyDescription == nullptr;
  const auto failure = platform.enter("SCNetworkConnectionCreateWithServiceID",
                                      fake::quoted(serviceID) + ", " + (callback == nullptr ? "null" : "callback") +
                                          ", " + (plain ? "{0, info, null, null, null}" : "another context"));
  if (!serviceID) {
    setSCErrorForNullArgument();
    return nullptr;
  }
  setSCError(failure.value_or(0));
  if (failure) return nullptr;
  auto connection = std::make_shared<SCNetworkConnection>();
  connection->callback = callback;
  connection->context = context;
  connection->status = platform.statusBeforeStart;
  connection->extendedStatus = platform.extendedStatusBeforeStart;
  return connection;
}

SCNetworkConnectionStatus SCNetworkConnectionGetStatus(const SCNetworkConnectionRef &connection) {
  FakePlatform &platform = FakePlatform::instance();
  platform.enter("SCNetworkConnectionGetStatus", name(connection));
  if (platform.readingStatusClobbersError) setSCError(kSCStatusFailed);
  return connection ? connection->status : kSCNetworkConnectionInvalid;
}

vpnctl::Value SCNetworkConnectionCopyExtendedStatus(const SCNetworkConnectionRef &connection) {
  FakePlatform &platform = FakePlatform::instance();
  platform.enter("SCNetworkConnectionCopyExtendedStatus", name(connection));
  if (platform.readingStatusClobbersError) setSCError(kSCStatusFailed);
  return connection ? connection->extendedStatus : vpnctl::Value();
}

bool SCNetworkConnectionScheduleWithRunLoop(const SCNetworkConnectionRef &connection, const CFRunLoopRef &runLoop,
                                            const std::string &mode) {
  const auto failure = FakePlatform::instance().enter(
      "SCNetworkConnectionScheduleWithRunLoop",
      name(connection) + ", " + (runLoop == CFRunLoopGetCurrent() ? "current" : "other") + ", " + mode);
  setSCError(0);
  if (!connection) return nullArgument();
  if (failure.value_or(0) != 0) return fails(*failure);
  const std::lock_guard lock(connection->mutex);
  connection->runLoop = runLoop;
  return !failure;
}

bool SCNetworkConnectionStart(const SCNetworkConnectionRef &connection, const vpnctl::Value &userOptions, bool linger) {
  FakePlatform &platform = FakePlatform::instance();
  const auto failure = platform.enter("SCNetworkConnectionStart", name(connection) + ", " + fake::oneLine(userOptions) +
                                                                      ", " + (linger ? "true" : "false"));
  setSCError(0);
  if (!connection) return nullArgument();
  if (failure.value_or(0) != 0) return fails(*failure);
  const std::lock_guard lock(connection->mutex);
  connection->started = true;
  if (connection->runLoop)
    connection->runLoop->replace(blocks(connection, connection->stopped ? platform.down : platform.up));
  return !failure;
}

bool SCNetworkConnectionStop(const SCNetworkConnectionRef &connection, bool forceDisconnect) {
  FakePlatform &platform = FakePlatform::instance();
  platform.enter("SCNetworkConnectionStop", name(connection) + ", " + (forceDisconnect ? "true" : "false"));
  if (!connection) return nullArgument();
  const std::lock_guard lock(connection->mutex);
  if (std::exchange(connection->stopped, true)) return true;
  if (connection->started && connection->runLoop) connection->runLoop->replace(blocks(connection, platform.down));
  return true;
}

}  // namespace platform
