// A server to test the Initiator against: main, aggressive and quick mode as responder, written from the messages and
// the arithmetic only, with nothing of the Initiator's own exchanges. It does what its options say, also what a server
// may not.

#pragma once

#include <functional>
#include <map>
#include <memory>

#include "helper/isakmp/Association.h"
#include "helper/isakmp/KeyExchange.h"
#include "helper/isakmp/Outputs.h"
#include "helper/isakmp/Transforms.h"
#include "tests/helper/isakmp/CountingRandomness.h"

namespace helper::isakmp {

using PayloadList = std::vector<std::pair<PayloadType, Bytes>>;

// Which message of the server's.
enum class Message { choice, half, proof, quickAnswer };

struct TestServerOptions {
  IKEProposal ike{CipherAlgorithm::aes256, HashAlgorithm::sha1, Group::ecp256};
  ESPProposal esp{CipherAlgorithm::aes256, HashAlgorithm::sha1, {}};
  vpnctl::Secret secret{"secret"};
  Identification identity = Identification::of({10, 9, 0, 1});
  std::vector<Bytes> vendorIDs;  // made by withExtensions()
  // As the server sees both ends; a NAT makes them differ from the client's plan.
  IPv4Bytes client{10, 9, 0, 2};
  std::uint16_t clientPort = 40000;
  IPv4Bytes own{10, 9, 0, 1};
  std::optional<std::chrono::seconds> ikeLifetime;  // another than was offered
  std::optional<std::chrono::seconds> espLifetime;
  bool answersQuestions = true;  // whether it lives
  bool commit = false;           // the client is to wait
  bool acceptsAnything = false;  // chooses the first transform, whatever it is
  // Of the client; others are refused. Empty: any.
  std::vector<std::uint16_t> protectedPorts;
  bool refusesESP = false;  // whatever is proposed
  // Payloads of a message before they are hashed and sent.
  std::function<void(Message, PayloadList &)> edit = [](Message, PayloadList &) {};
  bool wrongHash = false;  // from now on

  static std::vector<Bytes> extensions(NATTraversal version, bool deadPeerDetection = true);
};

class TestServer {
 public:
  explicit TestServer(TestServerOptions options);

  // Answers, each with the port from which it comes and the marker where that wants one.
  std::vector<Send> receive(ServerPort port, View datagram);
  TestServerOptions &options() { return options_; }

  // What was agreed on.
  struct Pair {
    std::uint32_t inbound = 0;  // the server's
    std::uint32_t outbound = 0;
    Bytes inboundKeys;  // cipher's, then integrity's
    Bytes outboundKeys;
    bool confirmed = false;
    std::uint16_t mode = 0;
    std::vector<Identification> flow;
    std::vector<PayloadType> payloads;  // of the first message
  };
  const std::vector<Pair> &pairs() const { return pairs_; }
  // The newest; null before phase 1 stands. For messages that the server begins.
  std::shared_ptr<Association> association() const { return associations_.empty() ? nullptr : associations_.back(); }
  // The client's, of each association.
  const Identification &clientIdentity() const { return clientIdentity_; }
  const std::vector<PayloadType> &proofPayloads() const { return proofPayloads_; }
  const std::vector<Notification> &notifications() const { return notifications_; }
  const std::vector<Deletion> &deletions() const { return deletions_; }
  bool sawNAT() const { return terms_.natAtServer; }  // at the client: its own words' other end

  // Messages that it begins, complete but for the marker.
  Bytes tell(const Notification &notification) { return association()->tell(random_, notification); }
  Bytes tell(const Deletion &deletion) { return association()->tell(random_, deletion); }
  Send toClient(View message) const;
  // What the server has begun and brought to an end elsewhere.
  void adopt(std::shared_ptr<Association> association);
  CountingRandomness &random() { return random_; }
  // The keys of phase 1 before it stands: whoever has them can say anything.
  const PhaseOneKeys &keys() const { return terms_.keys; }
  const Cookies &cookies() const { return terms_.cookies; }

 private:
  struct Quick {
    std::uint32_t messageID = 0;
    Bytes iv, nonceI, nonceR;
    Bytes lastMessage, lastAnswer;
    std::size_t pair = 0;
  };

  std::optional<Bytes> mainMode(const Header &header, View message);
  std::optional<Bytes> aggressiveMode(const Header &header, View message);
  std::optional<Bytes> choose(const Header &header, const PayloadChain &chain);
  Bytes refusal() const;
  void takeHalf(const PayloadChain &chain);
  PayloadList choicePayloads(const PayloadChain &chain);
  PayloadList halfPayloads();
  Bytes half(const PayloadChain &chain);
  std::optional<Bytes> proof(const Header &header, View message);
  std::optional<Bytes> quickMode(const Header &header, View message);
  // The notification with which it says no to the first message, if it does.
  std::optional<std::uint16_t> refusalOfQuickMode(const PayloadChain &chain) const;
  std::optional<PayloadWriter> quickAnswer(const Association &association, Quick &quick, const PayloadChain &chain);
  void quickLast(const Association &association, Quick &quick, const PayloadChain &chain);
  std::optional<Bytes> informational(const Header &header, View message);
  std::shared_ptr<Association> find(const Cookies &cookies) const;
  void noteNATDetection(const PayloadChain &chain);
  void stand();
  Header header(ExchangeType exchange, std::uint32_t messageID = 0) const;
  Bytes sealed(Header header, const PayloadWriter &payloads, Bytes &iv) const;

  TestServerOptions options_;
  CountingRandomness random_{99};
  Association::Terms terms_;  // of the association that stands or is being made
  Bytes offer_, publicI_, publicR_, nonceI_, nonceR_, iv_;
  std::unique_ptr<KeyExchange> half_;
  NATTraversal natTraversal_ = NATTraversal::none;
  int step_ = 0;  // of main mode: messages that were answered
  Bytes lastMessage_, lastAnswer_;
  std::vector<std::shared_ptr<Association>> associations_;
  std::map<std::uint32_t, Quick> quick_;
  std::vector<Pair> pairs_;
  Identification clientIdentity_;
  std::vector<PayloadType> proofPayloads_;
  std::vector<Notification> notifications_;
  std::vector<Deletion> deletions_;
  ServerPort port_ = ServerPort::ike;
};

}  // namespace helper::isakmp
