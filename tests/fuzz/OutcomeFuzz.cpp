// What vpnctl says, into which the PPP log copies what a server says: however it was cut into lines, it has one
// outcome, and what is told of it stays on one line.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "companions/run/Outcome.h"
#include "tests/fuzz/SplitInput.h"

using namespace companions;

namespace {

Outcome hearAll(std::string_view text) {
  Outcome outcome("192.0.2.1");
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    const auto news = outcome.hear(text.substr(0, end));
    if (news.text.find('\n') != std::string::npos || news.text.size() > text.size()) std::abort();
    if ((news.type == Outcome::News::Type::phase) == news.phase.empty()) std::abort();
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
  }
  if (outcome.isConnected() && !outcome.wasConnected()) std::abort();
  outcome.ended(true, 0);
  if (nameOf(outcome.kind()).empty() || outcome.sentence().find('\n') != std::string::npos) std::abort();
  return outcome;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  hearAll({reinterpret_cast<const char *>(data), size});
  return 0;
}

// Cut off anywhere, as by a vpnctl that dies.
extern "C" bool fuzzSplitInput(const std::uint8_t *data, std::size_t size, std::size_t at) {
  if (at >= size) return false;
  hearAll({reinterpret_cast<const char *>(data), at});
  return true;
}
