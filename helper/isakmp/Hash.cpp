#include "helper/isakmp/Hash.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <algorithm>
#include <memory>
#include <stdexcept>

namespace helper::isakmp {

const EVP_MD *digestOf(HashAlgorithm algorithm) {
  switch (algorithm) {
    case HashAlgorithm::md5:
      return EVP_md5();
    case HashAlgorithm::sha1:
      return EVP_sha1();
    case HashAlgorithm::sha256:
      return EVP_sha256();
    case HashAlgorithm::sha384:
      return EVP_sha384();
    case HashAlgorithm::sha512:
      return EVP_sha512();
  }
  throw std::logic_error("no such hash");
}

Bytes hashOf(HashAlgorithm algorithm, std::initializer_list<View> parts) {
  const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
  Bytes result(hashSize(algorithm));
  bool good = context && EVP_DigestInit_ex(context.get(), digestOf(algorithm), nullptr) == 1;
  for (const View part : parts) good = good && EVP_DigestUpdate(context.get(), part.data(), part.size()) == 1;
  if (!good || EVP_DigestFinal_ex(context.get(), result.data(), nullptr) != 1) throw std::runtime_error("hash");
  return result;
}

vpnctl::Secret prf(HashAlgorithm algorithm, const vpnctl::Secret &key, std::initializer_list<View> parts) {
  std::size_t size = 0;
  for (const View part : parts) size += part.size();
  // Some parts are secrets, so that what they are joined in is one.
  auto text = vpnctl::Secret::ofSize(size);
  auto place = text.mutableBytes().begin();
  for (const View part : parts) place = std::copy(part.begin(), part.end(), place);
  auto result = vpnctl::Secret::ofSize(hashSize(algorithm));
  static constexpr std::uint8_t kNothing = 0;  // a null key would mean the key of the call before
  if (HMAC(digestOf(algorithm), key.empty() ? &kNothing : key.bytes().data(), static_cast<int>(key.size()),
           text.bytes().data(), text.size(), result.mutableBytes().data(), nullptr) == nullptr)
    throw std::runtime_error("HMAC");
  return result;
}

bool equalInConstantTime(View a, View b) {
  return a.size() == b.size() && (a.empty() || CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0);
}

}  // namespace helper::isakmp
