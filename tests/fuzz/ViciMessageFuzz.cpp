// What an IKE daemon sends, from a stranger: whatever is accepted must be the very bytes when it is written again, and
// must not depend on how the stream was cut. The input is a stream of packets, and once more the inside of one packet.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <vector>

#include "helper/ike/ViciMessage.h"
#include "tests/fuzz/SplitInput.h"

using namespace helper::vici;

namespace {

// What the stream BYTES brings in pieces of FIRST bytes and then STEP bytes each.
std::vector<Packet> readAll(std::span<const std::uint8_t> bytes, std::size_t first, std::size_t step, bool &broken) {
  PacketReader reader;
  std::vector<Packet> packets;
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
      packets.push_back(**next);
    }
  }
  return packets;
}

void expectSame(std::span<const std::uint8_t> packet) {
  const auto decoded = decode(packet);
  if (!decoded) return;
  const auto encoded = encode(*decoded);
  if (!encoded || !std::ranges::equal(encoded->bytes().subspan(4), packet)) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  const std::span bytes(data, size);
  expectSame(bytes);
  bool brokenWhole = false;
  bool brokenPieces = false;
  const auto whole = readAll(bytes, size, size, brokenWhole);
  const auto pieces = readAll(bytes, 5, 5, brokenPieces);
  if (whole != pieces || brokenWhole != brokenPieces) std::abort();
  for (const Packet &packet : whole) {
    const auto again = encode(packet);
    if (!again || decode(again->bytes().subspan(4)).value() != packet) std::abort();
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
