#include <gtest/gtest.h>

#include "helper/isakmp/Cipher.h"
#include "helper/isakmp/Hash.h"
#include "tests/helper/isakmp/Hex.h"

namespace helper::isakmp {
namespace {

using vpnctl::Secret;

View bytesOf(std::string_view text) { return {reinterpret_cast<const std::uint8_t *>(text.data()), text.size()}; }

struct HashRow {
  HashAlgorithm algorithm;
  const char *ofABC;  // RFC 1321, FIPS 180
  const char *prf;    // RFC 2202 and 4231: key "Jefe", "what do ya want for nothing?"
};

class HashOf : public testing::TestWithParam<HashRow> {};

TEST_P(HashOf, AgreesWithKnownAnswers) {
  const HashAlgorithm algorithm = GetParam().algorithm;
  EXPECT_EQ(hex(hashOf(algorithm, {bytesOf("abc")})), GetParam().ofABC);
  EXPECT_EQ(hex(hashOf(algorithm, {bytesOf("a"), {}, bytesOf("bc")})), GetParam().ofABC);
  EXPECT_EQ(hex(prf(algorithm, Secret("Jefe"), {bytesOf("what do ya want "), bytesOf("for nothing?")})),
            GetParam().prf);
  EXPECT_EQ(hashSize(algorithm) * 2, std::string_view(GetParam().ofABC).size());
}

INSTANTIATE_TEST_SUITE_P(
    Each, HashOf,
    testing::Values(
        HashRow{HashAlgorithm::md5, "900150983cd24fb0d6963f7d28e17f72", "750c783e6ab0b503eaa86e310a5db738"},
        HashRow{HashAlgorithm::sha1, "a9993e364706816aba3e25717850c26c9cd0d89d",
                "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79"},
        HashRow{HashAlgorithm::sha256, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad",
                "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843"},
        HashRow{HashAlgorithm::sha384,
                "cb00753f45a35e8bb5a03d699ac65007272c32ab0eded1631a8b605a43ff5bed8086072ba1e7cc2358baeca134c825a7",
                "af45d2e376484031617f78d2b58a6b1b9c7ef464f5a01b47e42ec3736322445e8e2240ca5e69e2c78b3239ecfab21649"},
        HashRow{HashAlgorithm::sha512,
                "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a2192992a274fc1a836ba3c23a3feebbd"
                "454d4423643ce80e2a9ac94fa54ca49f",
                "164b7a7bfcf819e2e395fbe73b56e0a387bd64222e831fd610270cd7ea2505549758bf75c05a994a6d034f65f8f0e6fd"
                "caeab1a34d4a6b4b636e070a38bce737"}));

TEST(Prf, TakesAnEmptySecret) {
  // Not the key of the call before.
  EXPECT_EQ(hex(prf(HashAlgorithm::sha1, Secret("key"), {})), "f42bb0eeb018ebbd4597ae7213711ec60760843f");
  EXPECT_EQ(hex(prf(HashAlgorithm::sha1, Secret(), {})), "fbdb1d1b18aa6c08324b7d64b71fb76370690e1d");
}

TEST(EqualInConstantTime, IsEqual) {
  EXPECT_TRUE(equalInConstantTime({}, {}));
  EXPECT_TRUE(equalInConstantTime(sequence(1, 20), sequence(1, 20)));
  EXPECT_FALSE(equalInConstantTime(sequence(1, 20), sequence(2, 20)));
  EXPECT_FALSE(equalInConstantTime(sequence(1, 20), sequence(1, 19)));
  Bytes lastDiffers = sequence(1, 20);
  lastDiffers.back() ^= 0x80;
  EXPECT_FALSE(equalInConstantTime(sequence(1, 20), lastDiffers));
}

struct CipherRow {
  CipherAlgorithm cipher;
  std::size_t block;
  const char *key;
  const char *iv;
  const char *text;
  const char *encrypted;
};

class CipherOf : public testing::TestWithParam<CipherRow> {};

TEST_P(CipherOf, AgreesWithKnownAnswers) {
  const CipherRow &row = GetParam();
  const Secret key{View(fromHex(row.key))};
  EXPECT_EQ(blockSize(row.cipher), row.block);
  EXPECT_EQ(keySize(row.cipher), key.size());
  EXPECT_EQ(hex(encrypt(row.cipher, key, fromHex(row.iv), fromHex(row.text))), row.encrypted);
  EXPECT_EQ(hex(decrypt(row.cipher, key, fromHex(row.iv), fromHex(row.encrypted))), row.text);
}

// NIST SP 800-38A, F.2; 3DES: SP 800-67's way of DES three times, from another implementation.
INSTANTIATE_TEST_SUITE_P(
    Each, CipherOf,
    testing::Values(
        CipherRow{CipherAlgorithm::aes128, 16, "2b7e151628aed2a6abf7158809cf4f3c", "000102030405060708090a0b0c0d0e0f",
                  "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51",
                  "7649abac8119b246cee98e9b12e9197d5086cb9b507219ee95db113a917678b2"},
        CipherRow{CipherAlgorithm::aes192, 16, "8e73b0f7da0e6452c810f32b809079e562f8ead2522c6b7b",
                  "000102030405060708090a0b0c0d0e0f",
                  "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51",
                  "4f021db243bc633d7178183a9fa071e8b4d9ada9ad7dedf4e5e738763f69145a"},
        CipherRow{CipherAlgorithm::aes256, 16, "603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4",
                  "000102030405060708090a0b0c0d0e0f",
                  "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51",
                  "f58c4c04d6e5f1ba779eabfb5f7bfbd69cfc4e967edb808d679f777bc6702c7d"},
        CipherRow{CipherAlgorithm::tripleDES, 8, "0123456789abcdef23456789abcdef01456789abcdef0123", "f69f2445df4f9b17",
                  "6bc1bee22e409f96e93d7e117393172a", "2079c3d53aa763e193b79e2569ab5262"}));

TEST(Cipher, TakesWholeBlocksOnly) {
  const Secret key{View(sequence(0, 16))};
  EXPECT_THROW(decrypt(CipherAlgorithm::aes128, key, sequence(0, 16), sequence(0, 15)), std::logic_error);
  EXPECT_THROW(decrypt(CipherAlgorithm::aes128, key, sequence(0, 8), sequence(0, 16)), std::logic_error);
  EXPECT_THROW(decrypt(CipherAlgorithm::aes256, key, sequence(0, 16), sequence(0, 16)), std::logic_error);
  EXPECT_TRUE(decrypt(CipherAlgorithm::aes128, key, sequence(0, 16), {}).empty());
}

}  // namespace
}  // namespace helper::isakmp
