// Known answers, computed by another implementation; its SHA-1 and SHA-256 were compared with those of servers.

#include <gtest/gtest.h>

#include "helper/isakmp/KeyDerivation.h"
#include "helper/isakmp/Payloads.h"
#include "tests/helper/isakmp/Hex.h"

namespace helper::isakmp {
namespace {

using vpnctl::Secret;

struct Row {
  const char *name;
  HashAlgorithm hash;
  CipherAlgorithm cipher;
  const char *skeyID;
  const char *derivation;
  const char *authentication;
  const char *encryption;  // SKEYID_e, before it is as long as the cipher wants
  const char *key;
  const char *firstIV;
  const char *hashI;
  const char *hashR;
  const char *lastBlock;  // of the fifth message of main mode
  const char *quickIV;
  const char *hash1;
  const char *hash2;
  const char *hash3;
  const char *keyMaterial;
  const char *natDetection;
};

const Row kRows[] = {
    Row{"aes256 with sha1", HashAlgorithm::sha1, CipherAlgorithm::aes256, "4d5a3123be8edbe18e5e0e706b4d25e5f75d5972",
        "56d8319a7fd33e6fcfa1a1446acfe545bdaf494b", "527cad16e70450816922f7668e55b4eaa825f90e",
        "099c6c0cf1851a31a792154a54694c05c93cc60f", "4e098eb21cdb6ca66d4a98f3f774b43dab1f4832465ea931ca2a641d5abc57c1",
        "88dc779332e527d28b8330a0c4813b93", "e90b98b2aae52402c66e057042ef11381c2f356e",
        "51f1eee23bdc8c1c5913e376f62a9befd82bb543", "cda2c542f03c9b8bff9791434eba37e0",
        "049e9cbd6dbe966b4abb17f858d121f4", "e8b3c668ee1b7759bb756545c1809996bc389aa5",
        "0489d5e692ec9de1828e27611db2a76f2ae01fba", "d1e353baf65f583388b9f5337a0fb41f46cfe23f",
        "391b578eb88ee8cd5259ed8c70e2e2d0fee4f7643511bfa447baa185e64f1ba230fcb69cb130d625236d04ee8708dfe8295c3034",
        "cf9132a6396ba6d0ce33ba0d0a5dd7715ac14dbb"},
    Row{"aes256 with sha256", HashAlgorithm::sha256, CipherAlgorithm::aes256,
        "689441fa7f277c885ac04dc3296d17dd079326064a423478da96c77f10b052b4",
        "bedb68aca133ecec6efc9fa27c22d5fb67a166a93d1c780edb00a3de4d08cb38",
        "2997c8b02db29fa4b177496ff9e17b6138d6e62fe8fe473bff36e39d5fc98d4e",
        "29e5767772530185bd2946ced184a9ccafbd44343b636197e7a0f31934dc3d7d",
        "29e5767772530185bd2946ced184a9ccafbd44343b636197e7a0f31934dc3d7d", "395e6a4a2e31d2c5fc153d1862158f00",
        "660b6ca21a96753965f6f3c1c8a10576b4d256457ccc1e6f46eecd8d75e5fa48",
        "ac6ea08268d2801ea82387cf49e99f9c57e85a7f6ba3f29a22791d51c65845c9", "bdf7ce6af97474a8ce252465d5b44507",
        "5739f3b2129482d9201d040541c16916", "226b6cd5742a4b63c2aaee6fd8d03f7d9c10d08c62590577666ebb383e316525",
        "97d9774605e31f16f2e87764994ccf3cbf671f069c55aaec8b3fba7b4a0b5fed",
        "5884cc9c3a720dd694ece82adafb60f820255b4eeffc0d86cf046beaa89e1d46",
        "01567e6695ac28b37379d42716a27e87a5940c385edc259c94949d83dec564b315388b6c75f6babb4ac0d8d5c65c213161e53c4d",
        "72c8c0dabd3830d3ef9e06e0e2e2d2293061f6c4e7695619462e56c73ed4efbd"},
    Row{"tripleDES with md5", HashAlgorithm::md5, CipherAlgorithm::tripleDES, "2b5d64a59bcccf917b8efa09b5c7e570",
        "451e56ca18690b26a2a3d68a377d7a64", "b5123f1a9172b657a6aa66b149b5298c", "23a40f1018e528ff20b629c2adbe665d",
        "915cdfa7741e4b5788c87d3bfcbdb49340962871c8625ec3", "c58cc2c53e0cfb5b", "971fe971c4af44339d8c23e903ace687",
        "09ca8c36478783414daf86f920d95daf", "b9849a507552dbdc", "928ead58f1b31d0f", "ca0c9a978db7bba5cb0c67b76f6db4ce",
        "77d498c37edd654bcff5acfbb798e866", "8a68eacdd3955e913a911ae5abd39e4a",
        "ef45a814d6d39d54f3fcef3fffeb58ec70b77abfe9e17cd40a49d09e84e9aed4faf3551d3b88ec1a95ceae948a5b115c8ea685ee",
        "323fdd49c18272ac6d3baf5d822e34b9"},
    Row{"aes256 with md5", HashAlgorithm::md5, CipherAlgorithm::aes256, "2b5d64a59bcccf917b8efa09b5c7e570",
        "451e56ca18690b26a2a3d68a377d7a64", "b5123f1a9172b657a6aa66b149b5298c", "23a40f1018e528ff20b629c2adbe665d",
        "915cdfa7741e4b5788c87d3bfcbdb49340962871c8625ec375f9b6ad87602b3d", "c58cc2c53e0cfb5b114bbf6f7aadd2ff",
        "971fe971c4af44339d8c23e903ace687", "09ca8c36478783414daf86f920d95daf", "ab1433f7f3947ce75fad94f76693bb8d",
        "7db98fe2db7a03b03a4d72595c7cd974", "ca0c9a978db7bba5cb0c67b76f6db4ce", "77d498c37edd654bcff5acfbb798e866",
        "8a68eacdd3955e913a911ae5abd39e4a",
        "ef45a814d6d39d54f3fcef3fffeb58ec70b77abfe9e17cd40a49d09e84e9aed4faf3551d3b88ec1a95ceae948a5b115c8ea685ee",
        "323fdd49c18272ac6d3baf5d822e34b9"},
    Row{"tripleDES with sha1", HashAlgorithm::sha1, CipherAlgorithm::tripleDES,
        "4d5a3123be8edbe18e5e0e706b4d25e5f75d5972", "56d8319a7fd33e6fcfa1a1446acfe545bdaf494b",
        "527cad16e70450816922f7668e55b4eaa825f90e", "099c6c0cf1851a31a792154a54694c05c93cc60f",
        "4e098eb21cdb6ca66d4a98f3f774b43dab1f4832465ea931", "88dc779332e527d2",
        "e90b98b2aae52402c66e057042ef11381c2f356e", "51f1eee23bdc8c1c5913e376f62a9befd82bb543", "b2280793dc10b339",
        "aa0e06998754ec96", "e8b3c668ee1b7759bb756545c1809996bc389aa5", "0489d5e692ec9de1828e27611db2a76f2ae01fba",
        "d1e353baf65f583388b9f5337a0fb41f46cfe23f",
        "391b578eb88ee8cd5259ed8c70e2e2d0fee4f7643511bfa447baa185e64f1ba230fcb69cb130d625236d04ee8708dfe8295c3034",
        "cf9132a6396ba6d0ce33ba0d0a5dd7715ac14dbb"}};

class KeyDerivation : public testing::TestWithParam<Row> {
 protected:
  static Secret shared() {
    Bytes bytes{0};
    append(bytes, sequence(1, 255));
    return Secret(View(bytes));
  }
  PhaseOneKeys keys(CipherAlgorithm cipher) const {
    return derivePhaseOneKeys({GetParam().hash, cipher, cookies_, nonceI_, nonceR_}, Secret("vpnctl test key"),
                              shared());
  }
  PhaseOneKeys keys() const { return keys(GetParam().cipher); }

  Cookies cookies_{{1, 2, 3, 4, 5, 6, 7, 8}, {0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18}};
  Bytes nonceI_ = sequence(0x20, 20);
  Bytes nonceR_ = sequence(0x40, 32);
  Bytes publicI_ = sequence(0x00, 256);
  Bytes publicR_ = sequence(0x80, 256);
  Bytes association_ = fromHex(
      "00000001000000010000002c01010001000000240101000080010007800e0100800200028004000280030001800b0001800c0e10");
  Bytes idI_ = fromHex("010000000a090002");
  Bytes idR_ = fromHex("010000000a090001");
  std::uint32_t messageID_ = 0xa1b2c3d4;
  Bytes quickNonceI_ = sequence(0x60, 16);
  Bytes quickNonceR_ = sequence(0xa0, 16);
};

TEST_P(KeyDerivation, OfPhaseOne) {
  const PhaseOneKeys derived = keys();
  EXPECT_EQ(hex(derived.skeyID), GetParam().skeyID);
  EXPECT_EQ(hex(derived.derivation), GetParam().derivation);
  EXPECT_EQ(hex(derived.authentication), GetParam().authentication);
  EXPECT_EQ(hex(derived.encryption), GetParam().key);
  // A short key is SKEYID_e's beginning.
  EXPECT_EQ(hex(keys(CipherAlgorithm::aes128).encryption), std::string(GetParam().encryption).substr(0, 32));
}

TEST_P(KeyDerivation, OfHashesThatProveTheSecret) {
  EXPECT_EQ(hex(authenticationHash(GetParam().hash, keys(),
                                   {cookies_.initiator, cookies_.responder, publicI_, publicR_, association_, idI_})),
            GetParam().hashI);
  EXPECT_EQ(hex(authenticationHash(GetParam().hash, keys(),
                                   {cookies_.responder, cookies_.initiator, publicR_, publicI_, association_, idR_})),
            GetParam().hashR);
}

TEST_P(KeyDerivation, OfInitializationVectors) {
  const Bytes first = firstIV(GetParam().hash, GetParam().cipher, publicI_, publicR_);
  EXPECT_EQ(hex(first), GetParam().firstIV);

  PayloadWriter writer;
  writer.add(PayloadType::identification, idI_);
  writer.add(PayloadType::hash, fromHex(GetParam().hashI));
  Bytes text = writer.bytes();
  const std::size_t block = blockSize(GetParam().cipher);
  text.resize((text.size() + block - 1) / block * block);
  const Bytes cipherText = encrypt(GetParam().cipher, keys().encryption, first, text);
  EXPECT_EQ(hex(View(cipherText).last(block)), GetParam().lastBlock);
  EXPECT_EQ(decrypt(GetParam().cipher, keys().encryption, first, cipherText), text);

  EXPECT_EQ(hex(exchangeIV(GetParam().hash, GetParam().cipher, sequence(0x70, block), messageID_)), GetParam().quickIV);
}

TEST_P(KeyDerivation, OfPhaseTwo) {
  const PhaseOneKeys derived = keys();
  PayloadWriter writer;
  writer.add(PayloadType::nonce, quickNonceI_);
  EXPECT_EQ(hex(hash1(GetParam().hash, derived, messageID_, writer.bytes())), GetParam().hash1);
  EXPECT_EQ(hex(hash2(GetParam().hash, derived, messageID_, quickNonceI_, writer.bytes())), GetParam().hash2);
  EXPECT_EQ(hex(hash3(GetParam().hash, derived, messageID_, quickNonceI_, quickNonceR_)), GetParam().hash3);
  const Secret material = keyMaterial(GetParam().hash, derived, Secret(), 0xc0ffee01, quickNonceI_, quickNonceR_, 52);
  EXPECT_EQ(hex(material), GetParam().keyMaterial);
  // Whatever of it is wanted, it is the same from the beginning; a group's secret changes it all.
  EXPECT_EQ(hex(keyMaterial(GetParam().hash, derived, Secret(), 0xc0ffee01, quickNonceI_, quickNonceR_, 16)),
            hex(material).substr(0, 32));
  EXPECT_NE(hex(keyMaterial(GetParam().hash, derived, shared(), 0xc0ffee01, quickNonceI_, quickNonceR_, 16)),
            hex(material).substr(0, 32));
}

TEST_P(KeyDerivation, OfAddresses) {
  EXPECT_EQ(hex(natDetectionHash(GetParam().hash, cookies_, {10, 9, 0, 2}, 500)), GetParam().natDetection);
}

INSTANTIATE_TEST_SUITE_P(Each, KeyDerivation, testing::ValuesIn(kRows), [](const auto &row) {
  std::string name = row.param.name;
  for (char &c : name)
    if (c == ' ') c = '_';
  return name;
});

}  // namespace
}  // namespace helper::isakmp
