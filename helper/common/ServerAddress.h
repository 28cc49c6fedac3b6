// What a configuration may say of where the server is.
//
// Thread rule: any. Nothing blocks.

#pragma once

#include <netinet/in.h>

#include <string>

#include "foundation/Result.h"

namespace helper {

// The address if TEXT is one. An error, a sentence, if TEXT is neither an IPv4 address that a server can have nor a
// host name; INADDR_ANY for a name that has to be asked for.
vpnctl::Result<in_addr> serverAddressFrom(const std::string &text);

// Whether a server can have ADDRESS: it is neither of "this network" nor for many.
bool canBeServer(in_addr address);

}  // namespace helper
