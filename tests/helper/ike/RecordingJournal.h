// A journal that only remembers.

#pragma once

#include <functional>
#include <string>
#include <vector>

#include "helper/journal/IPSecJournal.h"

namespace helper::testing {

class RecordingJournal : public IPSecJournal {
 public:
  foundation::Status noteConnection(const LoadedConnection &entry) override {
    if (broken) return foundation::Error{"Test", 0, "no room"};
    connections.push_back(entry);
    return {};
  }
  foundation::Status noteDaemon(const StartedDaemon &entry) override {
    if (broken) return foundation::Error{"Test", 0, "no room"};
    daemons.push_back(entry);
    if (onNoteDaemon) onNoteDaemon();
    return {};
  }
  void forgetConnection(const LoadedConnection &entry) override { std::erase(connections, entry); }
  void forgetDaemon(const StartedDaemon &entry) override { std::erase(daemons, entry); }

  bool broken = false;
  std::function<void()> onNoteDaemon;
  std::vector<LoadedConnection> connections;
  std::vector<StartedDaemon> daemons;
};

}  // namespace helper::testing
