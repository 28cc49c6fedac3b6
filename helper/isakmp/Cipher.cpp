#include "helper/isakmp/Cipher.h"

#include <openssl/evp.h>

#include <stdexcept>

#include "helper/isakmp/OpenSSL.h"

namespace helper::isakmp {

namespace {

using Cipher = Owned<EVP_CIPHER, EVP_CIPHER_free>;
using Context = Owned<EVP_CIPHER_CTX, EVP_CIPHER_CTX_free>;

template <CipherAlgorithm>
const EVP_CIPHER *lookedUp(const char *name) {
  static const Cipher cipher = made(Cipher(EVP_CIPHER_fetch(nullptr, name, nullptr)), "cipher");
  return cipher.get();
}

const EVP_CIPHER *cipherOf(CipherAlgorithm cipher) {
  switch (cipher) {
    case CipherAlgorithm::tripleDES:
      return lookedUp<CipherAlgorithm::tripleDES>("DES-EDE3-CBC");
    case CipherAlgorithm::aes128:
      return lookedUp<CipherAlgorithm::aes128>("AES-128-CBC");
    case CipherAlgorithm::aes192:
      return lookedUp<CipherAlgorithm::aes192>("AES-192-CBC");
    case CipherAlgorithm::aes256:
      return lookedUp<CipherAlgorithm::aes256>("AES-256-CBC");
  }
  throw std::logic_error("no such cipher");
}

Bytes crypt(CipherAlgorithm cipher, const vpnctl::Secret &key, View iv, View text, bool encrypting) {
  if (key.size() != keySize(cipher) || iv.size() != blockSize(cipher) || text.size() % blockSize(cipher) != 0)
    throw std::logic_error("a cipher's input of the wrong size");
  const auto context = made(Context(EVP_CIPHER_CTX_new()), "cipher");
  Bytes result(text.size());
  int size = 0;
  must(EVP_CipherInit_ex2(context.get(), cipherOf(cipher), key.bytes().data(), iv.data(), encrypting, nullptr) == 1 &&
           EVP_CIPHER_CTX_set_padding(context.get(), 0) == 1 &&
           EVP_CipherUpdate(context.get(), result.data(), &size, text.data(), static_cast<int>(text.size())) == 1 &&
           static_cast<std::size_t>(size) == text.size(),
       "cipher");
  return result;
}

}  // namespace

void lookUpCiphers() {
  for (const CipherAlgorithm each :
       {CipherAlgorithm::tripleDES, CipherAlgorithm::aes128, CipherAlgorithm::aes192, CipherAlgorithm::aes256})
    tryNow([each] { cipherOf(each); });
}

Bytes encrypt(CipherAlgorithm cipher, const vpnctl::Secret &key, View iv, View text) {
  return crypt(cipher, key, iv, text, true);
}

Bytes decrypt(CipherAlgorithm cipher, const vpnctl::Secret &key, View iv, View text) {
  return crypt(cipher, key, iv, text, false);
}

}  // namespace helper::isakmp
