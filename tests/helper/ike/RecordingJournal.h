// A journal that only remembers.

#pragma once

#include <vector>

#include "helper/journal/IPSecJournal.h"

namespace helper::testing {

class RecordingJournal : public IPSecJournal {
 public:
  vpnctl::Status noteFlow(const ProtectedFlow &entry) override {
    if (broken) return vpnctl::Error{"Test", 0, "no room"};
    flows.push_back(entry);
    return {};
  }
  vpnctl::Status noteProcess(const StartedProcess &entry) override {
    processes.push_back(entry);
    return {};
  }
  void forgetFlow(const ProtectedFlow &entry) override { std::erase(flows, entry); }
  void forgetProcess(const StartedProcess &entry) override { std::erase(processes, entry); }

  bool broken = false;
  std::vector<ProtectedFlow> flows;
  std::vector<StartedProcess> processes;
};

}  // namespace helper::testing
