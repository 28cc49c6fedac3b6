// Hashes, and the pseudo-random function that IKE version 1 makes of them (HMAC), by OpenSSL.
//
// Thread rule: none of these keeps state but what OpenSSL has looked up, once. A failure inside
// of OpenSSL is std::runtime_error: only a lack of memory is one, or a system that keeps an algorithm from it.

#pragma once

#include <initializer_list>

#include "foundation/Secret.h"
#include "helper/isakmp/Algorithms.h"
#include "helper/isakmp/Bytes.h"

namespace helper::isakmp {

// Does now what would else be done at the first use of each: looking them up is most of what OpenSSL has to do until
// the first message. What it does not find is a failure at its use only.
void lookUpHashes();

// Of the PARTS, one after the other.
Bytes hashOf(HashAlgorithm algorithm, std::initializer_list<View> parts);
vpnctl::Secret prf(HashAlgorithm algorithm, const vpnctl::Secret &key, std::initializer_list<View> parts);

// False at once for different sizes; otherwise the time does not tell where they differ.
bool equalInConstantTime(View a, View b);

}  // namespace helper::isakmp
