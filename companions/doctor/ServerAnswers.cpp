#include "companions/doctor/ServerAnswers.h"

namespace companions {

namespace {

using helper::isakmp::ServerPort;

void askIKE(ServerAnswers &answers, in_addr server, const ServerAnswers::Question &question, Pace &pace) {
  IKEProbe probe(pace, {});
  const IKEEnd end = IKEEnd::of(server, ServerPort::ike);
  const IKEEnd encapsulated = IKEEnd::of(server, ServerPort::natTraversal);
  answers.ike = probe.ask(end, question.proposals);
  answers.ikeEncapsulated = probe.ask(encapsulated, question.proposals);
  if (answers.ike->answered())
    answers.proposals = probe.taken(end, question.proposals);
  else if (answers.ikeEncapsulated->answered())
    answers.proposals = probe.taken(encapsulated, question.proposals);
}

std::optional<IKEEnd> answeringEnd(const ServerAnswers &answers, in_addr server) {
  if (answers.ike && answers.ike->answered()) return IKEEnd::of(server, ServerPort::ike);
  if (answers.ikeEncapsulated && answers.ikeEncapsulated->answered())
    return IKEEnd::of(server, ServerPort::natTraversal);
  return std::nullopt;
}

}  // namespace

ServerAnswers ServerAnswers::ask(const Question &question) {
  ServerAnswers answers;
  answers.address = ServerAddress::find(question.server);
  if (answers.address.addresses.empty()) return answers;
  const in_addr server = answers.address.addresses.front();
  answers.route = ServerRoute::to(server);
  if (answers.route->kind != ServerRoute::Kind::way) return answers;
  if (question.pptp) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr = server;
    address.sin_port = htons(PPTPProbe::kPort);
    answers.pptp = PPTPProbe::ask(address, {.withCall = question.mayHearGRE});
  }
  Pace pace;
  if (question.l2tp) askIKE(answers, server, question, pace);
  const bool isThere = (answers.pptp && answers.pptp->contact == PPTPFinding::Contact::connected) ||
                       answeringEnd(answers, server).has_value();
  if (isThere) answers.mtu = PathMTU::find(server, answers.route->mtu(), answeringEnd(answers, server), pace, {});
  return answers;
}

}  // namespace companions
