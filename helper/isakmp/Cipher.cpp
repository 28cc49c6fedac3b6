#include "helper/isakmp/Cipher.h"

#include <openssl/evp.h>

#include <memory>
#include <stdexcept>

namespace helper::isakmp {

namespace {

const EVP_CIPHER *cipherOf(CipherAlgorithm cipher) {
  switch (cipher) {
    case CipherAlgorithm::tripleDES:
      return EVP_des_ede3_cbc();
    case CipherAlgorithm::aes128:
      return EVP_aes_128_cbc();
    case CipherAlgorithm::aes192:
      return EVP_aes_192_cbc();
    case CipherAlgorithm::aes256:
      return EVP_aes_256_cbc();
  }
  throw std::logic_error("no such cipher");
}

Bytes crypt(CipherAlgorithm cipher, const vpnctl::Secret &key, View iv, View text, bool encrypting) {
  if (key.size() != keySize(cipher) || iv.size() != blockSize(cipher) || text.size() % blockSize(cipher) != 0)
    throw std::logic_error("a cipher's input of the wrong size");
  const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context(EVP_CIPHER_CTX_new(),
                                                                                EVP_CIPHER_CTX_free);
  Bytes result(text.size());
  int size = 0;
  if (!context ||
      EVP_CipherInit_ex(context.get(), cipherOf(cipher), nullptr, key.bytes().data(), iv.data(), encrypting) != 1 ||
      EVP_CIPHER_CTX_set_padding(context.get(), 0) != 1 ||
      EVP_CipherUpdate(context.get(), result.data(), &size, text.data(), static_cast<int>(text.size())) != 1 ||
      static_cast<std::size_t>(size) != text.size())
    throw std::runtime_error("cipher");
  return result;
}

}  // namespace

Bytes encrypt(CipherAlgorithm cipher, const vpnctl::Secret &key, View iv, View text) {
  return crypt(cipher, key, iv, text, true);
}

Bytes decrypt(CipherAlgorithm cipher, const vpnctl::Secret &key, View iv, View text) {
  return crypt(cipher, key, iv, text, false);
}

}  // namespace helper::isakmp
