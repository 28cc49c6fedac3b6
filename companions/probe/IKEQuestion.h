// The first message of IKE's main mode as a question, and what came back for it. Without sockets.
//
// Usual sequence: construct, send message(), read() each datagram that comes, until one is ours. A server that answers
// it waits for more, for a while; there is no way to tell it that nothing else comes.
//
// Thread rule: as a plain value.

#pragma once

#include <optional>
#include <string>
#include <vector>

#include "helper/isakmp/Header.h"
#include "helper/isakmp/Proposals.h"

namespace companions {

struct IKEAnswer {
  enum class Kind {
    notOurs,  // it answers nothing that we have asked, or means nothing
    accepted,
    refused,  // with a notification
    strange   // it answers us, but not as it may; DETAIL
  };
  Kind kind = Kind::notOurs;
  std::optional<helper::isakmp::IKEProposal> chosen;
  std::vector<std::string> vendors;  // in words
  std::string notification;          // its name: "NO-PROPOSAL-CHOSEN"
  std::string detail;                // a sentence part
};

class IKEQuestion {
 public:
  // PROPOSALS empty: the offer is one that no server can take, since its cipher does not exist; a server refuses it, or
  // is silent, and keeps nothing of it. SIZE: how long the message is to be, in bytes, if it is not longer anyway;
  // what fills it up is a vendor identity without meaning.
  explicit IKEQuestion(std::vector<helper::isakmp::IKEProposal> proposals, std::size_t size = 0);

  const helper::isakmp::Bytes &message() const { return message_; }
  // DATAGRAM: of the server's, without marker.
  IKEAnswer read(helper::isakmp::View datagram) const;

 private:
  IKEAnswer readChoice(const helper::isakmp::Header &header, helper::isakmp::View datagram) const;
  static IKEAnswer readRefusal(const helper::isakmp::Header &header, helper::isakmp::View datagram);

  std::vector<helper::isakmp::IKEProposal> proposals_;
  helper::isakmp::Cookie cookie_{};
  helper::isakmp::Bytes message_;
};

}  // namespace companions
