// What the stores make of a property list that somebody else wrote: the check of the network preferences, and keychain
// items, which must survive being written again.

#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "foundation/PropertyList.h"
#include "helper/store/KeychainItem.h"
#include "helper/store/NetworkPreferencesSchema.h"
#include "helper/store/PreferencesStore.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char *>(data), size);
  const auto &limits = helper::PreferencesStore::kLimits;
  // What is taken from a caller and written down is no longer than what is read, and can be.
  if (const auto taken = vpnctl::propertyListFromData(bytes, "input", limits)) {
    const auto text = vpnctl::xmlPropertyList(*taken, limits.bytes);
    if (text && (text->size() > limits.bytes || !vpnctl::propertyListFromData(*text, "written", limits))) std::abort();
  }
  const auto root = vpnctl::propertyListFromData(bytes, "input");
  if (!root) return 0;
  if (const auto status = helper::checkNetworkPreferences(*root); !status && status.error().message.empty())
    std::abort();
  for (const auto &[identifier, value] : (*root)["Items"].dictionary()) {
    const auto item = helper::KeychainItem::fromValue(identifier, value);
    if (!item) continue;
    const auto again = helper::KeychainItem::fromValue(identifier, item->value());
    if (!again || again->associatedData() != item->associatedData() || again->sealedSecret != item->sealedSecret)
      std::abort();
  }
  return 0;
}
