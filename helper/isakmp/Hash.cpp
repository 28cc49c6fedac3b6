#include "helper/isakmp/Hash.h"

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/params.h>

#include <array>
#include <stdexcept>
#include <string>

#include "helper/isakmp/OpenSSL.h"

namespace helper::isakmp {

namespace {

using Digest = Owned<EVP_MD, EVP_MD_free>;
using DigestContext = Owned<EVP_MD_CTX, EVP_MD_CTX_free>;
using MAC = Owned<EVP_MAC, EVP_MAC_free>;
using MACContext = Owned<EVP_MAC_CTX, EVP_MAC_CTX_free>;

template <HashAlgorithm>
const EVP_MD *lookedUp(const char *name) {
  static const Digest digest = made(Digest(EVP_MD_fetch(nullptr, name, nullptr)), "hash");
  return digest.get();
}

const EVP_MD *digestOf(HashAlgorithm algorithm) {
  switch (algorithm) {
    case HashAlgorithm::md5:
      return lookedUp<HashAlgorithm::md5>("MD5");
    case HashAlgorithm::sha1:
      return lookedUp<HashAlgorithm::sha1>("SHA1");
    case HashAlgorithm::sha256:
      return lookedUp<HashAlgorithm::sha256>("SHA256");
    case HashAlgorithm::sha384:
      return lookedUp<HashAlgorithm::sha384>("SHA384");
    case HashAlgorithm::sha512:
      return lookedUp<HashAlgorithm::sha512>("SHA512");
  }
  throw std::logic_error("no such hash");
}

EVP_MAC *hmac() {
  static const MAC mac = made(MAC(EVP_MAC_fetch(nullptr, OSSL_MAC_NAME_HMAC, nullptr)), "HMAC");
  return mac.get();
}

}  // namespace

void lookUpHashes() {
  for (const HashAlgorithm each :
       {HashAlgorithm::md5, HashAlgorithm::sha1, HashAlgorithm::sha256, HashAlgorithm::sha384, HashAlgorithm::sha512})
    tryNow([each] { digestOf(each); });
  tryNow(hmac);
}

Bytes hashOf(HashAlgorithm algorithm, std::initializer_list<View> parts) {
  const auto context = made(DigestContext(EVP_MD_CTX_new()), "hash");
  Bytes result(hashSize(algorithm));
  must(EVP_DigestInit_ex2(context.get(), digestOf(algorithm), nullptr) == 1, "hash");
  for (const View part : parts) must(EVP_DigestUpdate(context.get(), part.data(), part.size()) == 1, "hash");
  must(EVP_DigestFinal_ex(context.get(), result.data(), nullptr) == 1, "hash");
  return result;
}

vpnctl::Secret prf(HashAlgorithm algorithm, const vpnctl::Secret &key, std::initializer_list<View> parts) {
  const auto context = made(MACContext(EVP_MAC_CTX_new(hmac())), "HMAC");
  std::string digest = EVP_MD_get0_name(digestOf(algorithm));
  const std::array<OSSL_PARAM, 2> parameters{
      OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digest.data(), digest.size()),
      OSSL_PARAM_construct_end()};
  static constexpr std::uint8_t kNothing = 0;  // a null key would be none at all
  must(EVP_MAC_init(context.get(), key.empty() ? &kNothing : key.bytes().data(), key.size(), parameters.data()) == 1,
       "HMAC");
  for (const View part : parts) must(EVP_MAC_update(context.get(), part.data(), part.size()) == 1, "HMAC");
  auto result = vpnctl::Secret::ofSize(hashSize(algorithm));
  must(EVP_MAC_final(context.get(), result.mutableBytes().data(), nullptr, result.size()) == 1, "HMAC");
  return result;
}

bool equalInConstantTime(View a, View b) {
  return a.size() == b.size() && (a.empty() || CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0);
}

}  // namespace helper::isakmp
