#include "qolmhelper/OnDemandConnection.h"

namespace TN {

void OnDemandConnection::makeOnThisThread() {
  const std::lock_guard lock(mutex_);
  maker_ = std::this_thread::get_id();
  tried_ = false;
}

platform::SCNetworkConnectionRef OnDemandConnection::get(const std::function<void()> &create) {
  std::unique_lock lock(mutex_);
  if (connection_) return connection_;
  if (std::this_thread::get_id() != maker_) {
    changed_.wait(lock, [this] { return tried_; });
    return connection_;
  }
  lock.unlock();
  create();
  lock.lock();
  tried_ = true;
  changed_.notify_all();
  return connection_;
}

void OnDemandConnection::set(platform::SCNetworkConnectionRef connection) {
  const std::lock_guard lock(mutex_);
  connection_.swap(connection);  // the old one goes outside the lock
}

}  // namespace TN
