// Connections: a snapshot of the link's state per change, told from the run loop.

#include <sys/epoll.h>

#include <system_error>
#include <utility>

#include "foundation/PropertyList.h"
#include "linux/EventSource.h"
#include "platform/SCErrorState.h"
#include "platform/SystemConfiguration.h"
#include "platform/linux/EventLoop.h"
#include "platform/linux/HelperConnection.h"

namespace platform {

using vpnctl::Value;

struct SCNetworkConnection : LinkObserver, std::enable_shared_from_this<SCNetworkConnection> {
  SCNetworkConnection(std::string service, SCNetworkConnectionCallBack function,
                      const SCNetworkConnectionContext &about)
      : serviceID_(std::move(service)),
        helper_(HelperConnection::current()),
        callback_(function),
        context_(about),
        stopRequest_(newWakeDescriptor()) {
    if (context_.retain != nullptr) context_.retain(context_.info);
    if (helper_) helper_->addObserver(this);
  }
  SCNetworkConnection(const SCNetworkConnection &) = delete;
  SCNetworkConnection &operator=(const SCNetworkConnection &) = delete;
  ~SCNetworkConnection() override {
    if (helper_) helper_->removeObserver(this);
    if (context_.release != nullptr) context_.release(context_.info);
  }

  bool schedule(const CFRunLoopRef &runLoop);
  bool start(const Value &userOptions, bool linger);
  void requestStop() const { raiseWake(stopRequest_); }  // any thread

  const LinkSnapshot &snapshot() const { return snapshot_; }
  const std::string &serviceID() const override { return serviceID_; }
  void linkChanged(const LinkSnapshot &snapshot) override;
  void helperIsGone() override;

 private:
  void stopIfRequested();

  const std::string serviceID_;
  const std::shared_ptr<HelperConnection> helper_;  // empty when nobody held an authorization
  const SCNetworkConnectionCallBack callback_;
  const SCNetworkConnectionContext context_;
  const vpnctl::FileDescriptor stopRequest_;
  CFRunLoopRef runLoop_;
  linux::EventSource stopSource_;
  bool started_ = false;        // and not told to be disconnected since
  bool stopRequested_ = false;  // taken from stopRequest_, not acted upon yet
  LinkSnapshot snapshot_;       // of the last change that was told
};

bool SCNetworkConnection::schedule(const CFRunLoopRef &runLoop) {
  if (runLoop_) {
    if (runLoop_ != runLoop) setSCError(kSCStatusInvalidArgument);
    return runLoop_ == runLoop;
  }
  // A helper that is gone is told by the start.
  if (helper_ && !helper_->attach(runLoop->event())) {
    setSCError(kSCStatusFailed);
    return false;
  }
  try {
    stopSource_ = linux::EventSource::io(
        runLoop->event(), stopRequest_.get(), EPOLLIN, [this](std::uint32_t) { stopIfRequested(); });
  } catch (const std::system_error &) {
    setSCError(kSCStatusFailed);
    return false;
  }
  runLoop_ = runLoop;
  // The service may be up already, started through another connection object.
  if (helper_ && !started_) {
    if (auto state = helper_->linkStatus(serviceID_)) {
      snapshot_ = std::move(*state);
      started_ = snapshot_.status != kSCNetworkConnectionDisconnected;
    }
  }
  return true;
}

bool SCNetworkConnection::start(const Value &userOptions, bool linger) {
  std::string options;
  if (!userOptions.isNull()) {
    auto bytes = vpnctl::xmlPropertyList(userOptions);
    if (!bytes || !userOptions.isDictionary()) {
      setSCError(kSCStatusInvalidArgument);
      return false;
    }
    options = std::move(*bytes);
  }
  const auto answer = helper_ ? helper_->startLink(serviceID_, options, linger) : std::nullopt;
  if (!answer || *answer != kSCStatusOK) {
    setSCError(answer ? *answer : static_cast<std::int32_t>(kSCStatusNoStoreServer));
    return false;
  }
  started_ = true;
  stopIfRequested();
  return true;
}

void SCNetworkConnection::stopIfRequested() {
  if (takeWake(stopRequest_)) stopRequested_ = true;
  if (!stopRequested_ || !started_) return;  // remembered for the start
  stopRequested_ = false;
  helper_->stopLink(serviceID_, true);
}

void SCNetworkConnection::linkChanged(const LinkSnapshot &snapshot) {
  if (!runLoop_) return;
  const auto self = shared_from_this();  // the callback may let go of the last reference
  snapshot_ = snapshot;
  started_ = snapshot_.status != kSCNetworkConnectionDisconnected;
  if (callback_ == nullptr) return;
  setSCError(snapshot_.error);
  callback_(self, snapshot_.status, context_.info);
}

void SCNetworkConnection::helperIsGone() {
  if (started_) linkChanged({kSCNetworkConnectionDisconnected, kSCStatusNoStoreServer, {}});
}

SCNetworkConnectionRef SCNetworkConnectionCreateWithServiceID(const std::optional<std::string> &serviceID,
                                                              SCNetworkConnectionCallBack callback,
                                                              const SCNetworkConnectionContext &context) {
  if (!serviceID) {
    setSCErrorForNullArgument();
    return {};
  }
  setSCError(kSCStatusOK);
  return std::make_shared<SCNetworkConnection>(*serviceID, callback, context);
}

SCNetworkConnectionStatus SCNetworkConnectionGetStatus(const SCNetworkConnectionRef &connection) {
  if (connection) return connection->snapshot().status;
  setSCErrorForNullArgument();
  return kSCNetworkConnectionInvalid;
}

Value SCNetworkConnectionCopyExtendedStatus(const SCNetworkConnectionRef &connection) {
  if (connection) return connection->snapshot().extendedStatus;
  setSCErrorForNullArgument();
  return {};
}

bool SCNetworkConnectionScheduleWithRunLoop(const SCNetworkConnectionRef &connection, const CFRunLoopRef &runLoop,
                                            const std::string &mode) {
  setSCError(kSCStatusOK);
  if (connection && runLoop && mode == kCFRunLoopDefaultMode) return connection->schedule(runLoop);
  setSCError(kSCStatusInvalidArgument);
  return false;
}

bool SCNetworkConnectionStart(const SCNetworkConnectionRef &connection, const Value &userOptions, bool linger) {
  setSCError(kSCStatusOK);
  if (connection) return connection->start(userOptions, linger);
  setSCError(kSCStatusInvalidArgument);
  return false;
}

bool SCNetworkConnectionStop(const SCNetworkConnectionRef &connection, bool) {
  if (!connection) {
    setSCErrorForNullArgument();
    return false;
  }
  connection->requestStop();
  return true;
}

}  // namespace platform
