// PPTP control messages from a stranger: whatever is accepted must mean the same when it is written again, and must not
// depend on how the stream was cut.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

#include "helper/pptp/PPTPMessages.h"
#include "tests/fuzz/SplitInput.h"

using namespace helper::pptp;

namespace {

// What the stream BYTES brings in pieces of FIRST bytes and then STEP bytes each.
std::vector<Message> readAll(std::span<const std::uint8_t> bytes, std::size_t first, std::size_t step, bool &broken) {
  MessageReader reader;
  std::vector<Message> messages;
  broken = false;
  for (std::size_t at = 0, size = first; at < bytes.size() && !broken; at += size, size = step) {
    size = std::min(size, bytes.size() - at);
    reader.append(bytes.subspan(at, size));
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
  const auto whole = readAll(bytes, size, size, brokenWhole);
  const auto pieces = readAll(bytes, 7, 7, brokenPieces);
  if (whole != pieces || brokenWhole != brokenPieces) std::abort();
  for (const Message &message : whole) {
    const auto again = decode(encode(message));
    if (!again || *again != message) std::abort();
  }
  return 0;
}

extern "C" bool fuzzSplitInput(const std::uint8_t *data, std::size_t size, std::size_t at) {
  if (at >= size) return false;
  const std::span bytes(data, size);
  bool brokenWhole = false;
  bool brokenPieces = false;
  const auto whole = readAll(bytes, size, size, brokenWhole);
  const auto pieces = readAll(bytes, at, size, brokenPieces);
  if (whole != pieces || brokenWhole != brokenPieces) std::abort();
  return true;
}
