// A server's packets of PPP's negotiation, as the plugin reads them: nothing is read behind a packet's end, and what
// comes of it is what its record can say.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "helper/ppp/Dispute.h"
#include "helper/ppp/PluginProtocol.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  // Packets of up to 255 bytes, each behind its length.
  dispute noted{};
  while (size > 0) {
    const std::size_t length = data[0] < size ? data[0] : size - 1;
    const std::vector<std::uint8_t> packet(data + 1, data + 1 + length);
    note_dispute(&noted, packet.data(), static_cast<int>(length));
    if (noted.wanted_authentication > 0xffffff ||
        noted.refused > (VPNCTL_PLUGIN_REFUSED_ADDRESS | VPNCTL_PLUGIN_REFUSED_ENCRYPTION))
      std::abort();
    data += 1 + length;
    size -= 1 + length;
  }
  return 0;
}
