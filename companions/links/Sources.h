// Everything that says something of the links of this machine, as it was at one moment: the journals of the helpers,
// the kernel's routing, interfaces and IPSec, and the processes. Nothing is changed, locked or removed by looking.
//
// Usual sequence: ofThisMachine(), then linksUp(). A test fills one by hand. Thread rule: as a plain value.

#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "companions/links/KernelAnswers.h"
#include "companions/links/LinkState.h"
#include "companions/links/RunningProcesses.h"
#include "foundation/Result.h"
#include "helper/journal/Journal.h"
#include "helper/journal/PolicyRule.h"

namespace companions {

struct Sources {
  // Where things are; tests point elsewhere.
  struct Paths {
    std::string journals = helper::Journal::kBase;
    std::string processes = "/proc";
    std::string processNumbers = "/run";  // where pppd notes its own, by interface
  };

  template <class Item>
  using List = std::vector<Item>;
  template <class Item>
  using Found = vpnctl::Result<List<Item>>;

  // EACCES for whoever is not root.
  Found<helper::Journal::Sight> journals{List<helper::Journal::Sight>()};
  Found<helper::PolicyRule> rules{List<helper::PolicyRule>()};
  Found<LedNetwork> ledNetworks{List<LedNetwork>()};
  Found<Interface> interfaces{List<Interface>()};
  Found<InterfaceAddress> addresses{List<InterfaceAddress>()};
  // EPERM for whoever is not root.
  Found<ESPAssociation> associations{List<ESPAssociation>()};
  std::vector<RunningProcess> processes{};
  Moment now{};
  std::chrono::seconds sinceBoot{0};  // at that moment; see helper::timeSinceBoot()

  // Blocks until the kernel has answered, which it does at once.
  static Sources ofThisMachine() { return ofThisMachine(Paths()); }
  static Sources ofThisMachine(const Paths &paths);
};

}  // namespace companions
