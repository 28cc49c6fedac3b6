// What the network preferences look like: the check that stands between a client and the file.

#pragma once

#include <string_view>

#include "foundation/Result.h"
#include "foundation/Value.h"

namespace helper {

inline constexpr std::string_view kNetworkPreferencesErrorDomain = "NetworkPreferences";

// An error, with a sentence part that names the place, unless ROOT is a dictionary whose parts have the shapes that
// readers of the file rely on:
//   CurrentSet        "/Sets/ID" of a set that is there
//   NetworkServices   ID -> {UserDefinedName: text, Interface: {Type: text, ...}, ENTITY: dictionary, ...}
//   Sets              ID -> {UserDefinedName: text, Network: {Service: ID -> {__LINK__: "/NetworkServices/ID"},
//                            Global: {IPv4: {ServiceOrder: [ID, ...]}}}}
// Each of the three may be missing, entries beside them are let alone, and every link must lead to a service.
vpnctl::Status checkNetworkPreferences(const vpnctl::Value &root);

}  // namespace helper
