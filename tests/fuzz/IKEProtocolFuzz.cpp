// What the helper and vpnctl-ike say to each other: whatever is accepted of either's records must mean the same when it
// is written and read again, and fit into a record.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

#include "helper/ike/IKEProtocol.h"

namespace {

void require(bool condition) {
  if (!condition) std::abort();
}

template <class Decode>
void readAndWrite(std::span<const std::uint8_t> record, Decode decode) {
  const auto message = decode(record);
  if (!message) return;
  const auto written = helper::encode(*message);
  require(written.size() <= helper::kLargestIKERecord);
  const auto again = decode(written);
  require(again && again->index() == message->index() && helper::encode(*again) == written);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  const std::span<const std::uint8_t> record(data, size);
  readAndWrite(record, helper::decodeIKEOrder);
  readAndWrite(record, helper::decodeIKEReport);
  return 0;
}
