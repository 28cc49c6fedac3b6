#include "companions/probe/IKEProbe.h"

#include <algorithm>
#include <utility>

namespace companions {

using helper::isakmp::Bytes;
using helper::isakmp::IKEProposal;
using std::chrono::steady_clock;
using Kind = IKEFinding::Kind;

namespace {

void take(IKEAnswer answer, IKEFinding &finding) {
  if (answer.kind == IKEAnswer::Kind::accepted) finding.kind = Kind::accepted;
  if (answer.kind == IKEAnswer::Kind::refused) finding.kind = Kind::refused;
  if (answer.kind == IKEAnswer::Kind::strange) finding.kind = Kind::strange;
  finding.answer = std::move(answer);
}

// Until an answer, a report or the deadline.
void awaitAnswer(IKESocket &socket, const IKEQuestion &question, const Deadline &deadline, IKEFinding &finding) {
  for (;;) {
    const IKESocket::Received received = socket.receive(deadline);
    if (std::holds_alternative<IKESocket::Nothing>(received)) return;
    if (const auto *report = std::get_if<ICMPReport>(&received)) {
      finding.kind = Kind::unreachable;
      finding.icmp = *report;
      return;
    }
    IKEAnswer answer = question.read(std::get<Bytes>(received));
    if (answer.kind != IKEAnswer::Kind::notOurs) return take(std::move(answer), finding);
    if (deadline.passed()) return;
  }
}

std::size_t takenIn(const ProposalFindings &findings) {
  return static_cast<std::size_t>(
      std::ranges::count(findings.proposals, ProposalFinding::Kind::taken, &ProposalFinding::kind));
}

// Several questions on their way at once.
class Round {
 public:
  // KEPT: what the server has of earlier questions.
  Round(IKESocket socket, Pace &pace, const IKEProbe::Limits &limits, std::size_t kept, ProposalFindings &findings)
      : socket_(std::move(socket)),
        pace_(pace),
        limits_(limits),
        kept_(kept),
        findings_(findings),
        deadline_(limits.deadline) {
    const std::size_t count = std::min(findings.proposals.size(), limits.mostProposals);
    for (std::size_t i = 0; i < count; ++i) questions_.emplace_back(findings.proposals[i]);
  }

  void run() {
    while (!deadline_.passed() && !isDeadEnd() && giveUpLate() && sendOne()) receiveUntil(deadline_.orAt(nextTime()));
  }

 private:
  struct Question {
    explicit Question(ProposalFinding &f) : finding(f), ike({f.proposal}) {}
    bool isOpen() const { return sent > 0 && finding.kind == ProposalFinding::Kind::noAnswer && !over; }

    ProposalFinding &finding;
    IKEQuestion ike;
    int sent = 0;
    bool over = false;  // no answer is awaited any more, though one would count
    Deadline::Time due{};
  };

  std::size_t countOpen() const {
    return static_cast<std::size_t>(std::ranges::count_if(questions_, &Question::isOpen));
  }
  std::size_t countTaken() const { return takenIn(findings_); }
  // Each that is on its way could be taken, too.
  bool mayBeginOne() const {
    return countOpen() < limits_.inFlight && kept_ + countTaken() + countOpen() < limits_.mostKept;
  }

  // Somebody says again and again that nothing arrives.
  bool isDeadEnd() const { return reports_ >= limits_.tries && !findings_.serverAnswers(); }
  // False when there is nothing more to do.
  bool giveUpLate() {
    for (Question &question : questions_)
      if (question.isOpen() && question.sent >= limits_.tries && question.due <= steady_clock::now())
        question.over = true;
    return countOpen() > 0 || nextToSend() != nullptr;
  }
  // The one whose turn it is, whenever its time comes.
  Question *nextToSend() {
    Question *next = nullptr;
    for (Question &question : questions_)
      if (question.isOpen() && question.sent < limits_.tries && (next == nullptr || question.due < next->due))
        next = &question;
    if (next != nullptr && next->due <= steady_clock::now()) return next;
    if (mayBeginOne())
      for (Question &question : questions_)
        if (question.sent == 0) return &question;
    return next;
  }
  // False when this machine cannot send.
  bool sendOne() {
    Question *question = nextToSend();
    if (question == nullptr || std::max(question->due, pace_.next()) > steady_clock::now()) return true;
    pace_.took();
    question->finding.kind = ProposalFinding::Kind::noAnswer;
    ++question->sent;
    question->due = steady_clock::now() + limits_.patience;
    const auto status = socket_.send(question->ike.message());
    if (!status) findings_.reason = status.error().message;
    return static_cast<bool>(status);
  }
  Deadline::Time nextTime() {
    Deadline::Time time = Deadline::Time::max();
    for (const Question &question : questions_)
      if (question.isOpen() && question.sent >= limits_.tries) time = std::min(time, question.due);
    if (const Question *question = nextToSend()) time = std::min(time, std::max(question->due, pace_.next()));
    return time;
  }

  void receiveUntil(const Deadline &deadline) {
    const IKESocket::Received received = socket_.receive(deadline);
    if (const auto *report = std::get_if<ICMPReport>(&received)) {
      findings_.icmp = *report;
      ++reports_;
    }
    if (const auto *datagram = std::get_if<Bytes>(&received))
      for (Question &question : questions_)
        if (question.sent > 0) take(question.ike.read(*datagram), question.finding);
  }
  // The first answer counts.
  static void take(const IKEAnswer &answer, ProposalFinding &finding) {
    using To = ProposalFinding::Kind;
    if (finding.kind != To::noAnswer || answer.kind == IKEAnswer::Kind::notOurs) return;
    finding.detail = answer.detail.empty() ? answer.notification : answer.detail;
    finding.kind = answer.kind == IKEAnswer::Kind::accepted  ? To::taken
                   : answer.kind == IKEAnswer::Kind::refused ? To::refused
                                                             : To::strange;
  }

  IKESocket socket_;
  Pace &pace_;
  const IKEProbe::Limits &limits_;
  std::size_t kept_;
  ProposalFindings &findings_;
  Deadline deadline_;
  int reports_ = 0;
  std::vector<Question> questions_;
};

}  // namespace

bool ProposalFindings::serverAnswers() const {
  return std::ranges::any_of(
      proposals,
      [](const ProposalFinding &finding) {
        return finding.kind != ProposalFinding::Kind::notAsked && finding.kind != ProposalFinding::Kind::noAnswer;
      });
}

IKEFinding IKEProbe::ask(const IKEEnd &end, const std::vector<IKEProposal> &proposals) {
  IKEFinding finding;
  auto socket = IKESocket::open(end, false);
  const auto fail = [&](const vpnctl::Error &error) {
    finding.kind = Kind::failed;
    finding.reason = error.message;
    return finding;
  };
  if (!socket) return fail(socket.error());
  const IKEQuestion question(proposals);
  const Deadline deadline(limits_.deadline);
  for (int i = 0; i < limits_.tries && !finding.answered() && !deadline.passed(); ++i) {
    pace_.wait();
    if (const auto sent = socket->send(question.message()); !sent) return fail(sent.error());
    awaitAnswer(*socket, question, deadline.orAfter(limits_.patience), finding);
  }
  if (finding.kind == Kind::accepted) ++kept_;
  return finding;
}

ProposalFindings IKEProbe::taken(const IKEEnd &end, const std::vector<IKEProposal> &proposals) {
  ProposalFindings findings;
  for (const IKEProposal &proposal : proposals) findings.proposals.push_back({.proposal = proposal});
  auto socket = IKESocket::open(end, false);
  if (!socket)
    findings.reason = socket.error().message;
  else
    Round(std::move(*socket), pace_, limits_, kept_, findings).run();
  kept_ += takenIn(findings);
  return findings;
}

}  // namespace companions
