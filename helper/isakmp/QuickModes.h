// The pairs of ESP associations: makes the first, replaces each before it ends, takes part when the server replaces it.
//
// Usual sequence: begin() with an association of phase 1; the SPI and the kernel's word come back by allocated() and
// installed(); then up or failed.
//
// Thread rule: as any object that keeps state.

#pragma once

#include <functional>

#include "foundation/RateLimit.h"
#include "helper/isakmp/PairTable.h"
#include "helper/isakmp/QuickModeInitiator.h"
#include "helper/isakmp/QuickModeResponder.h"
#include "helper/isakmp/Session.h"

namespace helper::isakmp {

class QuickModes {
 public:
  struct Handlers {
    // A pair stands, and packets go out by it.
    std::function<void(const QuickMode &)> up;
    // One that we began, for whatever reason.
    std::function<void(const Failure &)> failed;
    // There is none left: the last was deleted by the server, or its time is over.
    std::function<void(bool byServer)> allGone;
    // It is time for a new pair.
    std::function<void()> rekey;
  };

  // SESSION must outlive it.
  QuickModes(Session &session, Handlers handlers) : session_(session), handlers_(std::move(handlers)) {}

  void begin(const std::shared_ptr<Association> &association);
  // Whether the plan has another port of ours that has not been asked for, which begin() asks for from now on.
  bool changeFlow();
  // Whether we have begun one.
  bool isUnderWay() const;
  bool hasPair() const { return !pairs_.empty(); }

  void receive(const std::shared_ptr<Association> &association, const Header &header, View datagram,
               vpnctl::RateLimit &limit);
  // What the server says under its key.
  void refused(const std::shared_ptr<Association> &association, const Notification &notification);
  void connected(const std::shared_ptr<Association> &association);
  void deleted(std::uint32_t spi);
  // What was being negotiated under it is over.
  void associationGone(const std::shared_ptr<Association> &association);
  // The server may have ended the pairs that stand, without a word: the next one is used at once.
  void doubtPairs() { pairsInDoubt_ = true; }

  void allocated(PairID pair, std::uint32_t spi);
  void installed(PairID pair, Direction direction);
  void notInstalled(PairID pair);

  // Tried again after a failure, while a pair stands.
  void tryAgainLater();
  // Has all states removed. What to say of them to the server, if there are any.
  std::optional<Deletion> end();

  std::optional<Instant> due() const;
  void fire();

 private:
  enum class Step {
    spi,       // the SPI is to come
    sent,      // our message has gone out
    inbound,   // the inbound state is being installed
    waiting,   // until the server is ready for the new keys
    outbound,  // the outbound state is being installed
    done
  };

  struct Exchange {
    QuickMode &quickMode() const {
      if (ours) return *ours;
      return *theirs;
    }

    // One of the two.
    std::unique_ptr<QuickModeInitiator> ours;
    std::unique_ptr<QuickModeResponder> theirs;
    Step step = Step::spi;
    Retransmission retransmission;
    std::optional<Instant> stepEnds;  // of waiting for somebody, or of remembering what is done
    LastAnswer lastAnswer;
    Bytes received;  // what our next message answers
    Bytes reply;
    std::vector<PairID> replaced;
  };

  using Place = std::vector<std::unique_ptr<Exchange>>::iterator;

  void chooseFlow(const Association &association);
  Place find(PairID pair);
  void receiveOffer(const std::shared_ptr<Association> &association, const Header &header, View datagram,
                    vpnctl::RateLimit &limit);
  void receiveAnswer(Exchange &exchange, const Header &header, View datagram);
  void receiveLast(Exchange &exchange, const Header &header, View datagram);
  void installInbound(Exchange &exchange);
  void installOutbound(Exchange &exchange);
  void stand(Exchange &exchange);
  // Ends EXCHANGE without a pair.
  void drop(Place exchange);
  void fail(Place exchange, Suspicion suspicion);
  void removePair(PairID pair, bool tell, bool byServer);
  void fireExchanges();
  void fireOne(Place exchange);

  Session &session_;
  Handlers handlers_;
  std::vector<std::unique_ptr<Exchange>> exchanges_;
  PairTable pairs_;
  bool pairsInDoubt_ = false;
  PairID lastPair_ = 0;
  std::optional<std::uint16_t> flowLocalPort_;
  bool hasChangedFlow_ = false;
  std::shared_ptr<Association> lastAssociation_;  // for what is to be told of a pair
};

}  // namespace helper::isakmp
