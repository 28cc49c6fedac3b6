// Hashes, and the pseudo-random function that IKE version 1 makes of them (HMAC), by OpenSSL.
//
// Thread rule: none of these keeps state. A failure inside of OpenSSL is std::runtime_error: with these algorithms only
// a lack of memory is one.

#pragma once

#include <initializer_list>

#include "foundation/Secret.h"
#include "helper/isakmp/Algorithms.h"
#include "helper/isakmp/Bytes.h"

struct evp_md_st;

namespace helper::isakmp {

// How OpenSSL calls it.
const evp_md_st *digestOf(HashAlgorithm algorithm);

// Of the PARTS, one after the other.
Bytes hashOf(HashAlgorithm algorithm, std::initializer_list<View> parts);
vpnctl::Secret prf(HashAlgorithm algorithm, const vpnctl::Secret &key, std::initializer_list<View> parts);

// False at once for different sizes; otherwise the time does not tell where they differ.
bool equalInConstantTime(View a, View b);

}  // namespace helper::isakmp
