// L2TP control messages from a stranger: whatever is accepted must mean the same when it is written again, and a
// message that was cut short must not be taken for a whole datagram.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

#include "helper/l2tp/L2TPMessages.h"

using namespace helper::l2tp;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  const auto packet = decodePacket({data, size});
  if (!packet) return 0;
  if (decodePacket({data, 11})) std::abort();
  const auto message = decodeBody(packet->body);
  if (!message) return 0;
  const auto written = encode(packet->header, encodeBody(*message));
  const auto again = decodePacket(written);
  if (!again || !(again->header == packet->header)) std::abort();
  const auto same = decodeBody(again->body);
  if (!same || *same != *message) std::abort();
  return 0;
}
