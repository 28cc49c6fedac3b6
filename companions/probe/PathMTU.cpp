#include "companions/probe/PathMTU.h"

#include <algorithm>
#include <cerrno>
#include <functional>
#include <numeric>
#include <utility>
#include <variant>
#include <vector>

#include "companions/probe/EchoSocket.h"
#include "companions/probe/IKEQuestion.h"
#include "companions/probe/SizeSearch.h"

namespace companions {

using helper::isakmp::Bytes;
using helper::isakmp::IKEProposal;
using std::chrono::milliseconds;
using Method = PathMTU::Method;

namespace {

constexpr int kIPAndUDP = 28;
constexpr int kMarker = 4;

// What became of one packet.
struct Arrived {};
struct Lost {};
struct CannotSend {
  vpnctl::Error error;
};
using Fate = std::variant<Arrived, Lost, ICMPReport, CannotSend>;
using Send = std::function<Fate(int size, const Deadline &)>;

// Sizes that links and tunnels have, for when each answer costs the server something.
std::vector<int> usualSizes(int largest) {
  std::vector<int> sizes;
  for (const int size : {576,  1006, 1200, 1280, 1300, 1340, 1360, 1380, 1400, 1410, 1420, 1430, 1440, 1452,
                         1454, 1458, 1460, 1464, 1468, 1472, 1476, 1480, 1484, 1488, 1492, 1496, 1500})
    if (size < largest) sizes.push_back(size);
  sizes.push_back(largest);
  return sizes;
}

std::vector<int> allSizes(int largest) {
  std::vector<int> sizes(static_cast<std::size_t>(largest - PathMTU::kSmallest + 1));
  std::iota(sizes.begin(), sizes.end(), PathMTU::kSmallest);
  return sizes;
}

// One search with SEND, until it is over or the deadline has passed.
class Search {
 public:
  Search(std::vector<int> sizes, Send send, Pace &pace, const PathMTU::Limits &limits)
      : search_(std::move(sizes)), send_(std::move(send)), pace_(pace), limits_(limits), patience_(limits.patience) {}

  void run(PathMTU &result) {
    const Deadline deadline(limits_.deadline);
    while (const auto size = search_.next()) {
      if (deadline.passed() || !trySize(*size, deadline)) break;
      if (!search_.found()) break;  // not even the smallest
    }
    result.bytes = search_.found().value_or(0);
    result.complete = !search_.next();
    if (said_ && said_->mtu == result.bytes) result.saidBy = said_->from;
    if (result.bytes == 0) result.reason = reason_.empty() ? "no answer" : reason_;
  }

 private:
  // False when this machine cannot send.
  bool trySize(int size, const Deadline &deadline) {
    for (int i = 0; i < limits_.tries; ++i) {
      pace_.wait();
      const auto begun = std::chrono::steady_clock::now();
      const Fate fate = send_(size, deadline.orAfter(patience_));
      if (std::holds_alternative<Arrived>(fate)) {
        adapt(std::chrono::steady_clock::now() - begun);
        search_.arrived(size);
        return true;
      }
      if (const auto *report = std::get_if<ICMPReport>(&fate)) return takeReport(size, *report);
      if (const auto *cannot = std::get_if<CannotSend>(&fate)) return takeFailure(size, cannot->error);
    }
    search_.lost(size);
    return true;
  }
  bool takeReport(int size, const ICMPReport &report) {
    reason_ = report.text();
    if (!report.isTooLarge()) {
      search_.lost(size);
      return true;
    }
    search_.reported(size, report.mtu);
    said_ = report;
    return true;
  }
  bool takeFailure(int size, const vpnctl::Error &error) {
    reason_ = error.message;
    search_.lost(size);
    return error.code == EMSGSIZE;
  }
  // Whoever answers at once is not waited for as long as one who is far away.
  void adapt(std::chrono::steady_clock::duration roundTrip) {
    constexpr milliseconds kMargin{200};
    patience_ = std::min(limits_.patience, kMargin + 4 * std::chrono::ceil<milliseconds>(roundTrip));
  }

  SizeSearch search_;
  Send send_;
  Pace &pace_;
  const PathMTU::Limits &limits_;
  milliseconds patience_;
  std::optional<ICMPReport> said_;
  std::string reason_;
};

// One about an earlier packet, which was larger, may come late.
bool isAbout(const ICMPReport &report, int size) { return !report.isTooLarge() || report.mtu < size; }

PathMTU none(std::string reason) { return {.reason = std::move(reason)}; }

Fate sendEcho(EchoSocket &socket, std::uint16_t &sequence, int size, const Deadline &deadline) {
  ++sequence;
  if (const auto sent = socket.send(size, sequence); !sent) return CannotSend{sent.error()};
  for (;;) {
    const EchoSocket::Received received = socket.receive(deadline);
    if (std::holds_alternative<EchoSocket::Nothing>(received)) return Lost{};
    if (const auto *report = std::get_if<ICMPReport>(&received)) {
      if (isAbout(*report, size)) return *report;
    } else {
      const auto &reply = std::get<EchoSocket::Reply>(received);
      if (reply.sequence == sequence && reply.size == size) return Arrived{};
    }
    if (deadline.passed()) return Lost{};
  }
}

// HEADERS: bytes of SIZE that are not the message's.
Fate sendQuestion(IKESocket &socket, const std::vector<IKEProposal> &proposals, int size, int headers,
                  const Deadline &deadline) {
  const IKEQuestion question(proposals, static_cast<std::size_t>(size - headers));
  if (const auto sent = socket.send(question.message()); !sent) return CannotSend{sent.error()};
  for (;;) {
    const IKESocket::Received received = socket.receive(deadline);
    if (std::holds_alternative<IKESocket::Nothing>(received)) return Lost{};
    if (const auto *report = std::get_if<ICMPReport>(&received)) {
      if (isAbout(*report, size)) return *report;
    } else if (question.read(std::get<Bytes>(received)).kind != IKEAnswer::Kind::notOurs) {
      return Arrived{};
    }
    if (deadline.passed()) return Lost{};
  }
}

}  // namespace

PathMTU PathMTU::findByEcho(in_addr server, int interfaceMTU, Pace &pace, const Limits &limits) {
  auto socket = EchoSocket::open(server);
  if (!socket) return none(socket.error().message);
  if (interfaceMTU < kSmallest) return none("the interface takes less than 576 bytes");
  std::uint16_t sequence = 0;
  const auto send = [&](int size, const Deadline &deadline) { return sendEcho(*socket, sequence, size, deadline); };
  PathMTU result;
  Search(allSizes(interfaceMTU), send, pace, limits).run(result);
  if (result.bytes != 0) result.method = Method::echo;
  return result;
}

PathMTU PathMTU::findByIKE(const IKEEnd &end, int interfaceMTU, Pace &pace, const Limits &limits) {
  if (interfaceMTU < kSmallest) return none("the interface takes less than 576 bytes");
  const int headers = kIPAndUDP + (end.marked ? kMarker : 0);
  PathMTU result;
  for (const auto &proposals : {std::vector<IKEProposal>{}, helper::isakmp::defaultIKEProposals()}) {
    auto socket = IKESocket::open(end, true);
    if (!socket) return none(socket.error().message);
    const auto send = [&](int size, const Deadline &deadline) {
      return sendQuestion(*socket, proposals, size, headers, deadline);
    };
    result = {};
    Search(usualSizes(interfaceMTU), send, pace, limits).run(result);
    if (result.bytes == 0) continue;
    result.method = Method::ike;
    break;
  }
  return result;
}

PathMTU PathMTU::find(in_addr server, int interfaceMTU, const std::optional<IKEEnd> &end, Pace &pace,
                      const Limits &limits) {
  PathMTU byEcho = findByEcho(server, interfaceMTU, pace, limits);
  if (byEcho.bytes != 0 || !end) return byEcho;
  PathMTU byIKE = findByIKE(*end, interfaceMTU, pace, limits);
  if (byIKE.bytes == 0) byIKE.reason = "ICMP echo: " + byEcho.reason + "; IKE: " + byIKE.reason;
  return byIKE;
}

}  // namespace companions
