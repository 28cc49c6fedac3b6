// PPTP control messages from a stranger: whatever is accepted must mean the same when it is written again, and must not
// depend on how the stream was cut.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

#include "helper/link/PPTPMessages.h"

using namespace helper::pptp;

namespace {

std::vector<Message> readAll(std::span<const std::uint8_t> bytes, std::size_t step, bool &broken) {
  MessageReader reader;
  std::vector<Message> messages;
  broken = false;
  for (std::size_t at = 0; at < bytes.size() && !broken; at += step) {
    reader.append(bytes.subspan(at, std::min(step, bytes.size() - at)));
    while (true) {
      const auto next = reader.next();
      if (!next) {
        broken = true;
        break;
      }
      if (!next->has_value()) break;
      messages.push_back(**next);
    }
  }
  return messages;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  const std::span bytes(data, size);
  bool brokenWhole = false;
  bool brokenPieces = false;
  const auto whole = readAll(bytes, size == 0 ? 1 : size, brokenWhole);
  const auto pieces = readAll(bytes, 7, brokenPieces);
  if (whole != pieces || brokenWhole != brokenPieces) std::abort();
  for (const Message &message : whole) {
    const auto again = decode(encode(message));
    if (!again || *again != message) std::abort();
  }
  return 0;
}
