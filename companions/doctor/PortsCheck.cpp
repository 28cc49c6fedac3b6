#include "companions/doctor/PortsCheck.h"

#include <cstdint>
#include <string>

#include "companions/doctor/FindingList.h"
#include "helper/common/UDPPortHolder.h"

namespace companions {

namespace {

constexpr std::uint16_t kIKE = 500;
constexpr std::uint16_t kL2TP = 1701;

// As part of a sentence: who has PORT; empty: nobody.
std::string holderOf(std::uint16_t port, const Situation &situation) {
  const std::string &proc = situation.machine.proc;
  if (!helper::isUDPPortShown(port, proc)) return {};
  if (const auto holder = helper::udpPortHolder(port, proc)) return *holder;
  return situation.isRoot() ? "the kernel, or a program elsewhere" : "a program that only root can see";
}

}  // namespace

// vpnctl-ike goes out from any free port, and does not mind who has 4500.
Findings PortsCheck::look(const Situation &situation) {
  FindingList found;
  if (!situation.concerns("l2tp")) return found.take();
  if (const std::string holder = holderOf(kL2TP, situation); !holder.empty()) {
    const bool isNeeded = situation.settings.l2tp.sourcePort == helper::EngineSettings::SourcePort::wellKnown;
    if (isNeeded)
      found.prevents("ports.l2tp", "UDP port 1701 is held by " + holder + ".",
                     "l2tp.source_port allows no other for L2TP.",
                     "end that program, or set source_port = \"automatic\"; in engine.conf");
    else
      found.hinders("ports.l2tp", "UDP port 1701 is held by " + holder + ".",
                    "L2TP goes out from another port, which a few servers do not accept.",
                    "end that program if the server does not answer");
  }
  found.fine("ports.l2tp", "UDP port 1701 is free.");
  if (const std::string holder = holderOf(kIKE, situation); !holder.empty())
    found.hinders("ports.ike", "UDP port 500 is held by " + holder + ".",
                  "IKE goes out from another port; the few servers that answer to port 500 alone cannot be reached.",
                  "end that program if the server does not answer");
  found.fine("ports.ike", "UDP port 500 is free.");
  return found.take();
}

}  // namespace companions
