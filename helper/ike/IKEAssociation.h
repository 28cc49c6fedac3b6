// The IPSec association of one UDP socket, negotiated by the system's IKE daemon: IKE version 1, main mode, a shared
// secret on both sides, ESP in transport mode.
//
// Sequence, handlers and thread rule: IPSecAssociation's. What goes wrong before `up` is told with the stage and the
// remedy; small things the user should know (an algorithm the daemon lacks) go to the PPP log.

#pragma once

#include <systemd/sd-event.h>

#include <memory>
#include <string>

#include "foundation/Value.h"
#include "helper/EngineSettings.h"
#include "helper/PPPLog.h"
#include "helper/SecretSource.h"
#include "helper/ike/IPSecAssociation.h"
#include "helper/ike/IPSecJournal.h"

namespace helper {

// All of them outlive the association.
struct IKESurroundings {
  sd_event *event;
  SecretSource &secrets;
  PPPLog &log;
  IPSecJournal &journal;
  const EngineSettings &settings;
};

// IPSEC is the service's IPSec dictionary: its SharedSecret names the keychain's item. Not started.
std::unique_ptr<IPSecAssociation> makeIKEAssociation(const IKESurroundings &surroundings,
                                                     const foundation::Value &ipsec,
                                                     IPSecAssociation::Handlers handlers);

}  // namespace helper
