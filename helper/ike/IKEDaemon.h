// What an association needs of an IKE daemon, in IKE's terms: Charon is the one there is.
//
// Usual sequence: open(), then ready or unusable. After ready: negotiate(), then one of established, refused, unusable;
// after refused perhaps once more. After established perhaps lost, once. close() at any time ends with closed, once;
// from then on nothing else is told. No handler is called from within these functions, nor after destruction.
// Destroying an open one is closeNow().
//
// Thread rule: the thread of the event loop. Nothing but closeNow() and the destructor blocks.

#pragma once

#include <netinet/in.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "foundation/Result.h"
#include "foundation/Secret.h"
#include "helper/common/Peer.h"

namespace helper {

// IKE version 1, main mode, a shared secret; one child in transport mode for one UDP flow.
struct IKEPlan {
  std::string name;  // of everything the daemon keeps for us; nobody else uses it
  in_addr local{};
  std::uint16_t localPort = 0;
  in_addr remote{};
  std::uint16_t remotePort = 0;
  std::string remoteIdentity;
  std::vector<std::string> proposals;     // "aes256-sha1-modp1024", the best first
  std::vector<std::string> espProposals;  // "aes256-sha1"
  std::uint32_t reqid = 0;
  std::chrono::milliseconds deadline{};
};

// How far a negotiation had come when it ended.
enum class IKEStage {
  begin,        // the daemon did not even send anything
  firstAnswer,  // nothing came back
  proposals,    // how IKE is to be protected
  keyExchange,
  authentication,  // the shared secret, and who is who
  association      // how packets are to be protected, and which
};

struct IKERefusal {
  IKEStage stage = IKEStage::begin;
  bool silent = false;  // the server stopped answering, rather than saying no
};

class IKEDaemon {
 public:
  struct Handlers {
    std::function<void()> ready;
    // It does not run, or does not do what is needed. SENTENCE has the remedy.
    std::function<void(const std::string &sentence)> unusable;
    std::function<void()> established;
    std::function<void(const IKERefusal &)> refused;
    // The association is gone. SENTENCE says why.
    std::function<void(const std::string &sentence)> lost;
    // TAKENBACK: whether the daemon holds nothing of ours any more. The error is a sentence part.
    std::function<void(const foundation::Status &takenBack)> closed;
  };

  virtual ~IKEDaemon() = default;
  virtual void open() = 0;
  // After ready. What it is, for sentences: "charon 5.9.8".
  virtual std::string description() const = 0;
  // After ready. False when it lacks an algorithm that is written so in proposals ("aes256", "modp1024") for IKE.
  virtual bool knows(const std::string &algorithm) const = 0;
  // After ready. The process that gets the shared secret.
  virtual foundation::Result<Peer> peer() const = 0;
  // After ready: where it is spoken to, for whoever has to take things back.
  virtual std::string controlSocket() const = 0;
  virtual void negotiate(const IKEPlan &plan, const foundation::Secret &secret) = 0;
  virtual void close() = 0;
  // Without the loop, which may have finished, without waiting for the server and without telling anybody. Says what
  // `closed` does. Blocks until the daemon has answered, for a few seconds at most.
  virtual foundation::Status closeNow() = 0;
};

}  // namespace helper
