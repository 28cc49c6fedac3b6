#include <gtest/gtest.h>

#include "helper/isakmp/Hash.h"
#include "helper/isakmp/KeyExchange.h"
#include "tests/helper/isakmp/CountingRandomness.h"
#include "tests/helper/isakmp/Hex.h"

namespace helper::isakmp {
namespace {

using vpnctl::Secret;

// Known answers, computed by another implementation from fixed private values, which were chosen so that the shared
// secret begins with a zero byte. Values as their SHA-256.
struct Row {
  const char *name;
  Group group;
  std::size_t size;  // of the shared secret
  Bytes privateA;
  Bytes privateB;
  const char *publicA;
  const char *publicB;
  const char *shared;
};

Bytes privateB(unsigned first, std::size_t size, unsigned last) {
  Bytes bytes = sequence(first, size - 2);
  append16(bytes, last);
  return bytes;
}

std::vector<Row> rows() {
  return {{"modp1024", Group::modp1024, 128, sequence(0x81, 64), privateB(0x90, 8, 758),
           "0afae1fd945c1f661fcacd53206cc96969996233431497dcd797ab30f6bc1720",
           "aa2b8e80f909d23598d49674d9e6fd25a2e1277ec40aa3813f2b35e460caa396",
           "31ff5b8489907cba3b6c4620d35876e15e4af6aa9d0c17a4df1081fbf5ad1d72"},
          {"modp1536", Group::modp1536, 192, sequence(0x81, 64), privateB(0x90, 8, 761),
           "bdb8a2267efb5d8135eaaed87a1bd217a692bacfc9f35edcd28b5eacc1f39cc9",
           "6d92bbf938bb425a0ead9bfd4e608029cd9c2f6f6ff064e85fc0a86e309057b7",
           "be34311a87402a96cf0dfe154b44f835876b8a4b73ef1c661a0f2a02ee12d79f"},
          {"modp2048", Group::modp2048, 256, sequence(0x81, 64), privateB(0x90, 8, 199),
           "8f54c43e918806b3e523eea85502f9edb8d3348596d4ce81459eca97ad35c4a7",
           "83ff13b4855a8c57b17d0bb16109300aee35211b9b04fe5d4c8dfa4d28c49511",
           "4cef089324545fed5c3bc18f14d3945a202c65e494e235d7e618694abc1068b6"},
          {"modp3072", Group::modp3072, 384, sequence(0x81, 64), privateB(0x90, 8, 490),
           "7c56dd13465b3882963c6e83b5ed1a1a40bf827c15fdf237734a8f4866aadb21",
           "4edc33b8beec766832bb80ba0c6288a699f6eea063bf3d6ac323906785161ae4",
           "a919149162717c1041edba5f9e8d0cf4bcec291f60b6fc2dd16a06af7c98e237"},
          {"modp4096", Group::modp4096, 512, sequence(0x81, 64), privateB(0x90, 8, 410),
           "0cb9ba2e3ca52315fe8b519f335350166cc323b5f514b1e68950ac307b73428b",
           "3f0a026c275d4d39ae8724182ada42d8c0dcab80ac89b145823b400b48ae8ff8",
           "a388f777c610e9f87e8a400b87d3b3a8832c7fcaadf89605a3f740c9f6ac337f"},
          {"ecp256", Group::ecp256, 32, sequence(0x01, 32), privateB(0x10, 32, 20),
           "ca5f30154a8f7c61be95000c3842be20363b9ac6a7708c3a1e8239b42ba64335",
           "46c06876d0c9fbaf9f258e859ae093fcc2a7b4e46c31a5ce506dcd571140810a",
           "955a3e93a39cf04f7bd94f445157d69ac6f81c8ea8888a94b20dd36f7e7dac1b"},
          {"ecp384", Group::ecp384, 48, sequence(0x01, 48), privateB(0x10, 48, 388),
           "e678ff2c6bf3193168f6e8010ba05852ccc475d9cdcd4356528c1df3c1ab37fa",
           "2ec684c4fe0dabb6d79f5af74ca213b1a789e731b122fff1a3ee294a65363ee2",
           "ea78de5b7d97722e177cbeddba8e1c4414b2dc84aca1a1f3d7ae5ca8f60ddb3e"}};
}

std::string digest(View bytes) { return hex(hashOf(HashAlgorithm::sha256, {bytes})); }

class KeyExchangeIn : public testing::TestWithParam<Row> {
 protected:
  bool isCurve() const { return GetParam().group == Group::ecp256 || GetParam().group == Group::ecp384; }
};

TEST_P(KeyExchangeIn, AgreesWithKnownAnswers) {
  const KeyExchange a(GetParam().group, Secret(View(GetParam().privateA)));
  const KeyExchange b(GetParam().group, Secret(View(GetParam().privateB)));
  EXPECT_EQ(digest(a.publicValue()), GetParam().publicA);
  EXPECT_EQ(digest(b.publicValue()), GetParam().publicB);
  const auto shared = a.sharedSecret(b.publicValue());
  ASSERT_TRUE(shared);
  EXPECT_EQ(shared->size(), GetParam().size);
  EXPECT_EQ(shared->bytes()[0], 0);  // filled up
  EXPECT_EQ(digest(shared->bytes()), GetParam().shared);
  const auto same = b.sharedSecret(a.publicValue());
  ASSERT_TRUE(same);
  EXPECT_EQ(*same, *shared);
}

TEST_P(KeyExchangeIn, ChoosesItsPrivateValue) {
  CountingRandomness random;
  const KeyExchange a(GetParam().group, random);
  const KeyExchange b(GetParam().group, random);
  EXPECT_NE(a.publicValue(), b.publicValue());
  EXPECT_EQ(a.publicValue().size(), publicSize(GetParam().group));
  const auto shared = a.sharedSecret(b.publicValue());
  const auto same = b.sharedSecret(a.publicValue());
  ASSERT_TRUE(shared && same);
  EXPECT_EQ(*shared, *same);
  CountingRandomness again;
  EXPECT_EQ(KeyExchange(GetParam().group, again).publicValue(), a.publicValue());
}

TEST_P(KeyExchangeIn, RefusesValuesThatCannotBe) {
  CountingRandomness random;
  const KeyExchange ours(GetParam().group, random);
  const std::size_t size = publicSize(GetParam().group);
  const auto reason = [&](const Bytes &value) {
    const auto shared = ours.sharedSecret(value);
    return shared ? std::string() : shared.error().message;
  };
  Bytes shorter = ours.publicValue();
  shorter.pop_back();
  Bytes longer = ours.publicValue();
  longer.push_back(0);
  EXPECT_EQ(reason({}), "a public value of the wrong size");
  EXPECT_EQ(reason(shorter), "a public value of the wrong size");
  EXPECT_EQ(reason(longer), "a public value of the wrong size");
  EXPECT_EQ(reason(ours.publicValue()), "our own public value");

  const char *weak =
      isCurve() ? "a public value that is no point of the curve" : "a public value that gives the secret away";
  Bytes value(size, 0);
  EXPECT_EQ(reason(value), weak);
  value.back() = 1;
  EXPECT_EQ(reason(value), weak);
  EXPECT_EQ(reason(Bytes(size, 0xff)), weak);  // above the prime
  if (isCurve()) {
    CountingRandomness other(7);
    Bytes point = KeyExchange(GetParam().group, other).publicValue();
    EXPECT_EQ(reason(point), "");
    point.back() ^= 1;
    EXPECT_EQ(reason(point), weak);
  }
}

INSTANTIATE_TEST_SUITE_P(Each, KeyExchangeIn, testing::ValuesIn(rows()),
                         [](const auto &row) { return std::string(row.param.name); });

// The prime less 1 is the other member of the smallest subgroup, the prime less 2 is none.
TEST(KeyExchange, RefusesTheEndOfANumberGroup) {
  CountingRandomness random;
  const KeyExchange ours(Group::modp1024, random);
  // Begins and ends with 64 ones.
  Bytes last = fromHex(
      "FFFFFFFFFFFFFFFFC90FDAA22168C234C4C6628B80DC1CD129024E088A67CC74020BBEA63B139B22514A08798E3404DD"
      "EF9519B3CD3A431B302B0A6DF25F14374FE1356D6D51C245E485B576625E7EC6F44C42E9A637ED6B0BFF5CB6F406B7ED"
      "EE386BFB5A899FA5AE9F24117C4B1FE649286651ECE65381FFFFFFFFFFFFFFFF");
  EXPECT_FALSE(ours.sharedSecret(last));  // the prime
  last.back() = 0xfe;
  EXPECT_FALSE(ours.sharedSecret(last));
  last.back() = 0xfd;
  EXPECT_TRUE(ours.sharedSecret(last));
}

}  // namespace
}  // namespace helper::isakmp
