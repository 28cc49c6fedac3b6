// An Initiator against a hostile server that has the secret: the input is a list of acts, among them payloads that are
// encrypted and, if it wants, authenticated, so that it gets as far as the real server does.
//
// One byte chooses the plan. Then acts: a byte that says which, one that says how long, and so many bytes.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "tests/helper/isakmp/Conversation.h"

using namespace helper::isakmp;

namespace {

void require(bool holds) {
  if (!holds) std::abort();
}

class Input {
 public:
  explicit Input(View bytes) : bytes_(bytes) {}
  bool empty() const { return bytes_.empty(); }
  std::uint8_t byte() {
    if (bytes_.empty()) return 0;
    const std::uint8_t value = bytes_.front();
    bytes_ = bytes_.subspan(1);
    return value;
  }
  View piece() {
    const std::size_t wanted = byte();
    const std::size_t size = std::min(wanted, bytes_.size());
    const View piece = bytes_.first(size);
    bytes_ = bytes_.subspan(size);
    return piece;
  }

 private:
  View bytes_;
};

// Bytes as payloads: each a type, a length, and so many.
PayloadList payloadsIn(View bytes) {
  PayloadList list;
  Input input(bytes);
  while (!input.empty()) {
    const auto type = static_cast<PayloadType>(input.byte());
    const View body = input.piece();
    list.emplace_back(type, copyOf(body));
  }
  return list;
}

PayloadWriter written(const PayloadList &list) {
  PayloadWriter writer;
  for (const auto &[type, body] : list) writer.add(type, body);
  return writer;
}

Plan planOf(std::uint8_t choice) {
  Plan plan = usualPlan();
  plan.aggressive = (choice & 1) != 0;
  plan.forceEncapsulation = (choice & 2) != 0;
  plan.startOn4500 = (choice & 4) != 0;
  if ((choice & 8) != 0) plan.esp[0].group = Group::ecp256;
  if ((choice & 16) != 0) plan.peerIdentity = Identification::of({10, 9, 0, 1});
  return plan;
}

class Attack {
 public:
  explicit Attack(std::uint8_t choice) : conversation_(planOf(choice), serverFor(choice)) {
    conversation_.server.options().edit = [this](Message message, PayloadList &list) {
      if (const auto place = edits_.find(message); place != edits_.end()) list = place->second;
    };
    conversation_.passes = [this](bool toServer, std::size_t) { return toServer ? serverHears_ : clientHears_; };
  }

  void act(std::uint8_t what, View bytes);
  void check() const;
  Conversation &conversation() { return conversation_; }

 private:
  static TestServerOptions serverFor(std::uint8_t choice) {
    TestServerOptions options = usualServer();
    options.esp = planOf(choice).esp[0];
    if ((choice & 32) != 0) options.client = {192, 0, 2, 77};
    return options;
  }
  void inClear(ExchangeType exchange, View bytes) {
    conversation_.deliver(
        plainMessage({conversation_.server.cookies(), PayloadType::none, exchange, 0, 0}, written(payloadsIn(bytes))));
  }
  // Under the keys of phase 1; HASHED: with a hash that is right.
  void sealed(ExchangeType exchange, View bytes, bool hashed) {
    const auto association = conversation_.server.association();
    if (!association) return;
    const std::uint32_t id = association->chooseMessageID(conversation_.server.random());
    const PayloadWriter rest = written(payloadsIn(bytes));
    PayloadWriter payloads;
    if (hashed)
      payloads.add(PayloadType::hash, hash1(association->hash(), association->keys(), id, rest.bytes()).bytes());
    payloads.add(rest);
    if (payloads.bytes().empty()) return;
    Bytes iv = association->ivFor(id);
    conversation_.deliver(sealedMessage(association->header(exchange, id), payloads, association->cipher(),
                                        association->keys().encryption, iv));
  }

  Conversation conversation_;
  std::map<Message, PayloadList> edits_;
  bool serverHears_ = true;
  bool clientHears_ = true;
};

void Attack::act(std::uint8_t what, View bytes) {
  switch (what % 14) {
    case 0:
      return conversation_.deliver(Send{ServerPort::ike, copyOf(bytes)});
    case 1:
      return conversation_.deliver(bytes);
    case 2:
      return inClear(ExchangeType::main, bytes);
    case 3:
      return inClear(ExchangeType::informational, bytes);
    case 4:
      return sealed(ExchangeType::informational, bytes, true);
    case 5:
      return sealed(ExchangeType::informational, bytes, false);
    case 6:
      return sealed(ExchangeType::quick, bytes, true);
    case 7:
      return sealed(ExchangeType::main, bytes, false);
    case 8:
      if (!bytes.empty()) edits_[static_cast<Message>(bytes[0] % 4)] = payloadsIn(bytes.subspan(1));
      return;
    case 9:
      edits_.clear();
      return;
    case 10:
      // What came once comes again.
      if (!bytes.empty() && !conversation_.fromServer.empty()) {
        const Bytes message = conversation_.fromServer[bytes[0] % conversation_.fromServer.size()];
        conversation_.deliver(Send{conversation_.server.toClient({}).port, message});
      }
      return;
    case 11:
      if (!bytes.empty()) conversation_.pass(std::chrono::milliseconds(250) * bytes[0]);
      return;
    case 12:
      serverHears_ = bytes.empty() || (bytes[0] & 1) != 0;
      clientHears_ = bytes.empty() || (bytes[0] & 2) != 0;
      conversation_.kernelAnswers = bytes.empty() || (bytes[0] & 4) != 0;
      return;
    default:
      if (!bytes.empty() && (bytes[0] & 1) != 0) return conversation_.stop();
      if (conversation_.count<NeedSPI>() > 0)
        conversation_.apply(
            conversation_.initiator.notInstalled(conversation_.now, conversation_.last<NeedSPI>().pair));
  }
}

// What holds whatever a server does.
void Attack::check() const {
  std::size_t ends = 0;
  bool up = false;
  std::vector<PairID> removed;
  for (const Output &output : conversation_.told) {
    require(ends == 0);
    if (std::holds_alternative<Refused>(output)) require(!up);
    if (std::holds_alternative<Lost>(output)) require(up);
    if (std::holds_alternative<Refused>(output) || std::holds_alternative<Lost>(output) ||
        std::holds_alternative<Stopped>(output))
      ++ends;
    if (std::holds_alternative<Established>(output)) {
      require(!up);
      up = true;
    }
    if (const auto *state = std::get_if<InstallState>(&output)) {
      ESPProposal wanted = conversation_.plan.esp[0];
      if (!wanted.group) wanted.group = state->algorithms.group;
      require(state->algorithms == wanted && state->spi >= kLeastSPI);
      require(state->cipherKey.size() == keySize(state->algorithms.cipher));
      require(state->integrityKey.size() == hashSize(state->algorithms.integrity));
      require(state->lifetime.count() >= 120 && state->lifetime <= conversation_.plan.espLifetime);
      require(std::find(removed.begin(), removed.end(), state->pair) == removed.end());
    }
    if (const auto *pair = std::get_if<RemoveStates>(&output)) removed.push_back(pair->pair);
  }
  if (ends > 0) require(conversation_.states().empty() && !conversation_.initiator.nextDue());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  Input input(View(data, size));
  Attack attack(input.byte());
  const std::uint8_t before = input.byte();  // edits that are there from the beginning
  for (int i = 0; i < before % 4; ++i) {
    const std::uint8_t what = input.byte();
    attack.act(what, input.piece());
  }
  attack.conversation().start();
  for (int acts = 0; acts < 64 && !input.empty(); ++acts) {
    const std::uint8_t what = input.byte();
    attack.act(what, input.piece());
  }
  attack.check();
  attack.conversation().stop();
  attack.check();
  return 0;
}
