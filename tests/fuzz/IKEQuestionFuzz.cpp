// What a stranger answers to the question that vpnctl-doctor asks an IKE server. Its first eight bytes are made the
// question's cookie, which a stranger reads on the way.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "companions/probe/IKEQuestion.h"

using namespace companions;
using namespace helper::isakmp;

namespace {

void require(bool holds) {
  if (!holds) std::abort();
}

bool isPrintable(const std::string &text) {
  return std::ranges::all_of(
      text, [](char c) { return c >= ' ' && c < 127; });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  static const auto offered = defaultIKEProposals();
  static const IKEQuestion question(offered);
  Bytes datagram(data, data + size);
  std::copy_n(question.message().begin(), std::min<std::size_t>(8, size), datagram.begin());
  const IKEAnswer answer = question.read(datagram);
  using Kind = IKEAnswer::Kind;
  require((answer.kind == Kind::accepted) == answer.chosen.has_value());
  if (answer.chosen) require(std::ranges::find(offered, *answer.chosen) != offered.end());
  require((answer.kind == Kind::refused) == !answer.notification.empty());
  require((answer.kind == Kind::strange) == !answer.detail.empty());
  // All of it may be printed.
  require(isPrintable(answer.notification) && isPrintable(answer.detail));
  for (const std::string &vendor : answer.vendors) require(isPrintable(vendor));
  return 0;
}
