// What a server begins, made with the Initiator's own exchanges, which were tested against a server that has nothing of
// them.

#pragma once

#include <gtest/gtest.h>

#include "helper/isakmp/MainMode.h"
#include "helper/isakmp/QuickModeInitiator.h"
#include "tests/helper/isakmp/Conversation.h"

namespace helper::isakmp {

// The server's view of the same: what is ours is its peer's.
inline Plan mirrored(const Plan &plan) {
  Plan mirror = plan;
  std::swap(mirror.local, mirror.remote);
  std::swap(mirror.flowLocalPort, mirror.flowRemotePort);
  mirror.localPort = 500;
  mirror.identity = Identification::of(mirror.local);
  return mirror;
}

// A quick mode that the server begins.
struct ServersQuickMode {
  explicit ServersQuickMode(Conversation &there, std::uint32_t spi = 0xcc000077)
      : plan(mirrored(there.plan)),
        quickMode(plan, there.server.association(), there.server.random(), 1, plan.flowLocalPort),
        first(quickMode.firstMessage(spi)) {}

  // Our last answer, if it is one.
  bool receive(const Conversation &there) {
    const Bytes &message = there.toServer.back();
    const auto header = decodeHeader(message);
    return header && quickMode.receive(*header, message).done;
  }

  Plan plan;
  QuickModeInitiator quickMode;
  Bytes first;
};

inline Conversation &up(Conversation &conversation) {
  conversation.start();
  EXPECT_TRUE(conversation.isUp()) << conversation.drops();
  return conversation;
}

inline std::vector<PairID> pairsOf(const std::vector<InstallState> &states) {
  std::vector<PairID> pairs;
  for (const InstallState &state : states) pairs.push_back(state.pair);
  return pairs;
}

struct ServersMainMode {
  explicit ServersMainMode(Conversation &there, std::string_view word = "secret")
      : plan(mirrored(there.plan)),
        secret(word),
        mainMode({plan, secret, there.server.random(), ServerPort::ike, nullptr, false}),
        first(mainMode.firstMessage()) {}

  Reaction receive(const Bytes &message) { return mainMode.receive(*decodeHeader(message), message); }
  // All of it; false when we do not go along.
  bool run(Conversation &there) {
    Bytes next = first;
    for (;;) {
      const std::size_t sent = there.toServer.size();
      there.deliver(next);
      if (there.toServer.size() == sent) return false;
      const Reaction reaction = receive(there.toServer.back());
      if (reaction.done) return true;
      if (!reaction.reply) return false;
      next = *reaction.reply;
    }
  }

  Plan plan;
  vpnctl::Secret secret;
  MainMode mainMode;
  Bytes first;
};

}  // namespace helper::isakmp
