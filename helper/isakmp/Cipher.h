// Block ciphers in CBC mode, by OpenSSL.
//
// Thread rule: none of these keeps state. Failures: as in Hash.h.

#pragma once

#include "foundation/Secret.h"
#include "helper/isakmp/Bytes.h"

namespace helper::isakmp {

// The key size is part of the name; 3DES counts its parity bits.
enum class CipherAlgorithm { tripleDES, aes128, aes192, aes256 };

std::size_t keySize(CipherAlgorithm cipher);
std::size_t blockSize(CipherAlgorithm cipher);

// TEXT is whole blocks, KEY and IV are of the cipher's sizes.
Bytes encrypt(CipherAlgorithm cipher, const foundation::Secret &key, View iv, View text);
Bytes decrypt(CipherAlgorithm cipher, const foundation::Secret &key, View iv, View text);

}  // namespace helper::isakmp
