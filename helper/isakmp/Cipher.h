// Block ciphers in CBC mode, by OpenSSL.
//
// Thread rule and failures: as in Hash.h.

#pragma once

#include "foundation/Secret.h"
#include "helper/isakmp/Algorithms.h"
#include "helper/isakmp/Bytes.h"

namespace helper::isakmp {

// As lookUpHashes().
void lookUpCiphers();

// TEXT is whole blocks, KEY and IV are of the cipher's sizes.
Bytes encrypt(CipherAlgorithm cipher, const vpnctl::Secret &key, View iv, View text);
Bytes decrypt(CipherAlgorithm cipher, const vpnctl::Secret &key, View iv, View text);

}  // namespace helper::isakmp
