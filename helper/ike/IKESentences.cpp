#include "helper/ike/IKESentences.h"

#include "helper/isakmp/Notification.h"

namespace helper {

using isakmp::Reason;
using isakmp::Refused;
using isakmp::Stage;

namespace {

std::string canBeSet(const char *what, const char *setting) {
  return std::string(what) + " can be set as " + setting + " in " + EngineSettings::kPath + ".";
}

const char *when(Stage stage) {
  switch (stage) {
    case Stage::firstAnswer:
      return "when IKE began";
    case Stage::keyExchange:
      return "during IKE's key exchange";
    case Stage::authentication:
      return "when the shared secret was to be proved";
    case Stage::association:
    case Stage::established:
      return "when packets were to be protected";
  }
  return "";
}

// What the server said itself, in brackets.
std::string said(const Refused &refused) {
  return refused.notification == 0 ? "" : " (it says " + isakmp::notificationName(refused.notification) + ")";
}

// The same as a sentence, before another one.
std::string itsWords(const Refused &refused) {
  return refused.notification == 0 ? "" : "It says " + isakmp::notificationName(refused.notification) + ". ";
}

std::string secretIsWrong(const IKESituation &situation) {
  const std::string &name = situation.settings.remoteIdentity;
  return "the shared secret is probably wrong, or the server knows this client under another address" +
         (name == "%any" ? "" : ", or it is not called " + name) + ".";
}

std::string refusedPackets(const Refused &refused, const IKESituation &situation, const char *how) {
  return "The server " + situation.server + " accepts the shared secret but " + how +
         " when packets are to be protected; offered were " + situation.offered.espText() +
         ", transport mode, for UDP port " + std::to_string(situation.flowRemotePort) + ". " + itsWords(refused) +
         canBeSet("What the server knows", "ike.esp_proposals");
}

std::string ourPorts(const IKESituation &situation) {
  const std::string first = "port " + std::to_string(situation.flowLocalPort);
  return situation.otherFlowLocalPort ? first + " or " + std::to_string(*situation.otherFlowLocalPort) : first;
}

std::string silence(const Refused &refused, const IKESituation &situation) {
  const std::string server = "The server " + situation.server;
  switch (refused.stage) {
    case Stage::firstAnswer:
      return server +
             " does not answer on UDP port 500 (IKE), nor on port 4500; check the address, and that a firewall lets "
             "UDP ports 500 and 4500 through.";
    case Stage::keyExchange:
      return server +
             " stopped answering during IKE's key exchange; a firewall may drop large packets, or UDP port 4500.";
    case Stage::authentication:
      return server + " stopped answering when the shared secret was to be proved: " + secretIsWrong(situation);
    case Stage::association:
    case Stage::established:
      return refusedPackets(refused, situation, "stopped answering");
  }
  return {};
}

std::string noProposal(const Refused &refused, const IKESituation &situation) {
  if (refused.stage >= Stage::association) return refusedPackets(refused, situation, "refuses");
  return "The server " + situation.server + " refuses how IKE is to be protected; offered were " +
         situation.offered.ikeText() + ". " + itsWords(refused) + canBeSet("What the server knows", "ike.proposals");
}

std::string notInstalled(const IKESituation &situation) {
  if (!situation.kernelKnowsESP) return "The kernel cannot do ESP: load its module (modprobe esp4).";
  return "The kernel does not take the keys of IPSec" +
         (situation.kernelRefusal.empty() ? "" : ": " + situation.kernelRefusal) +
         "; a cipher may be missing from it, or IPSec forbidden.";
}

std::string plain(const Refused &refused, const IKESituation &situation) {
  const std::string server = "The server " + situation.server;
  switch (refused.reason) {
    case Reason::silence:
      return silence(refused, situation);
    case Reason::noProposal:
      return noProposal(refused, situation);
    case Reason::keyExchange:
      return server + " cannot use this machine's half of IKE's key" + said(refused) + ". " +
             canBeSet("Other groups", "ike.proposals");
    case Reason::wrongSecret:
      return server + " said no when the shared secret was to be proved: " + secretIsWrong(situation);
    case Reason::identity:
      return server + " does not know this client as " + situation.identity + said(refused) + ". " +
             canBeSet("The name that it expects", "ike.local_identity");
    case Reason::serverIdentity:
      return server + " knows the shared secret, but is not who it should be: " + refused.detail + ". " +
             canBeSet("Who it must be", "ike.remote_identity");
    case Reason::certificate:
      return server +
             " wants a certificate; only a shared secret can be used here. Its administrator has to allow one.";
    case Reason::flow:
      return server + " accepts the shared secret but does not protect these packets" + said(refused) + ": UDP from " +
             ourPorts(situation) + " of this machine to port " + std::to_string(situation.flowRemotePort) +
             ", in transport mode. " + canBeSet("Another port", "l2tp.source_port");
    case Reason::forgotten:
      return server + " has forgotten the negotiation " + when(refused.stage) + said(refused) +
             "; it may have restarted: try again.";
    case Reason::otherwise:
      return server + " gave up " + when(refused.stage) + ": " + refused.detail + ".";
    case Reason::badAnswer:
      return server + " answered what it may not " + when(refused.stage) + ": " + refused.detail + ".";
    case Reason::notInstalled:
      return notInstalled(situation);
  }
  return {};
}

}  // namespace

std::string sentenceFor(const Refused &refused, const IKESituation &situation) {
  const bool mayMeanCertificates =
      refused.certificateRequested && refused.reason != Reason::certificate && refused.reason != Reason::notInstalled;
  return plain(refused, situation) + (mayMeanCertificates ? " It asks for certificates, and may expect one." : "");
}

std::string sentenceFor(const isakmp::Lost &lost, const std::string &server) {
  if (lost.byServer) return "The server has ended the IPSec association.";
  if (lost.reason == Reason::silence)
    return "The server " + server + " no longer answers to IKE: it is gone, or the way to it.";
  return "The IPSec association with " + server + " could not be kept" +
         (lost.detail.empty() ? "" : ": " + lost.detail) + ".";
}

}  // namespace helper
