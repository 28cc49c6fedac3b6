// Records on the plugin's socket: nothing but the exact forms is accepted, and an accepted interface name is one.

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "helper/ppp/PluginMessages.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  const auto message = helper::decodePluginMessage({data, size});
  if (!message) return 0;
  if (const auto *up = std::get_if<helper::PluginIPUp>(&*message))
    if (up->interface.empty() || up->interface.size() > 15 || up->interface.find('/') != std::string::npos ||
        up->dns.size() > 2)
      std::abort();
  return 0;
}
