// Who says whether a program that is not root's may change this machine's network.
//
// Usual sequence: construct, ask(); the answer comes when it comes: a person may be typing a password. Destroying the
// authority withdraws the question. Thread rule: the thread of the event loop; nothing blocks.

#pragma once

#include <functional>
#include <string>

#include "helper/common/Peer.h"

namespace helper {

class Authority {
 public:
  enum class Verdict {
    granted,
    denied,             // by a rule, or because nobody proved to be an administrator
    dismissed,          // the person who was asked did not want to
    nobodyToAsk,        // a password is needed, and nobody could be asked for it
    interactionWanted,  // the same, where the caller allowed no question
    unavailable,        // there is nobody to decide it
  };
  struct Answer {
    Verdict verdict = Verdict::unavailable;
    std::string sentence;  // for people; with the remedy where there is one
  };
  using Handler = std::function<void(const Answer &answer)>;

  virtual ~Authority() = default;
  // One question at a time. HANDLER is called once, from the loop, never from here; it may destroy the authority.
  virtual void ask(const Peer &peer, bool mayInteract, Handler handler) = 0;
};

}  // namespace helper
