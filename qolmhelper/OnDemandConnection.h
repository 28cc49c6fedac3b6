// A connection that is made when it is first asked for: by one thread, and asked for by any.
//
// Usual sequence: makeOnThisThread in the thread that runs the attempt; get from anywhere. Thread rule: any thread.

#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

#include "platform/SystemConfiguration.h"

namespace TN {

class OnDemandConnection {
 public:
  // From here on the calling thread is the one that makes the connection. Before, it is the one that made this object.
  void makeOnThisThread();

  // The connection. While there is none, the thread that makes it runs CREATE, which may set() one, at every call; any
  // other waits until that has been tried, so that a stop asked for too early takes effect as soon as there is
  // something to stop, and makes no second service.
  platform::SCNetworkConnectionRef get(const std::function<void()> &create);

  void set(platform::SCNetworkConnectionRef connection);

 private:
  std::mutex mutex_;  // guards the three below; never held while the platform is asked
  std::thread::id maker_ = std::this_thread::get_id();
  bool tried_ = false;
  platform::SCNetworkConnectionRef connection_;
  std::condition_variable changed_;
};

}  // namespace TN
