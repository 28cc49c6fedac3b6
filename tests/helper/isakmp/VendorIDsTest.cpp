#include <gtest/gtest.h>

#include "helper/isakmp/Hash.h"
#include "helper/isakmp/VendorIDs.h"
#include "tests/helper/isakmp/Hex.h"

namespace helper::isakmp {
namespace {

View bytesOf(std::string_view text) { return {reinterpret_cast<const std::uint8_t *>(text.data()), text.size()}; }

struct Row {
  const char *vendorID;
  NATTraversal natTraversal;
  bool deadPeerDetection;
};

class VendorID : public testing::TestWithParam<Row> {};

TEST_P(VendorID, SaysWhatAPeerCan) {
  PeerExtensions extensions;
  extensions.add(fromHex(GetParam().vendorID));
  EXPECT_EQ(extensions.natTraversal, GetParam().natTraversal);
  EXPECT_EQ(extensions.deadPeerDetection, GetParam().deadPeerDetection);
}

INSTANTIATE_TEST_SUITE_P(
    Each, VendorID,
    testing::Values(Row{"4a131c81070358455c5728f20e95452f", NATTraversal::rfc3947, false},
                    Row{"7d9419a65310ca6f2c179d9215529d56", NATTraversal::draft03, false},
                    Row{"90cb80913ebb696e086381b5ec427b1f", NATTraversal::draft02, false},
                    Row{"cd60464335df21f87cfdb2fc68b6a448", NATTraversal::draft02, false},
                    Row{"4485152d18b6bbcd0be8a8469579ddcc", NATTraversal::none, false},    // the draft before
                    Row{"4a131c81070358455c5728f20e9545", NATTraversal::none, false},      // cut
                    Row{"4a131c81070358455c5728f20e95452f00", NATTraversal::none, false},  // longer
                    Row{"afcad71368a1f1c96b8696fc77570100", NATTraversal::none, true},
                    Row{"afcad71368a1f1c96b8696fc77570101", NATTraversal::none, true},  // a later version
                    Row{"afcad71368a1f1c96b8696fc7757", NATTraversal::none, false}, Row{"", NATTraversal::none, false},
                    Row{"4048b7d56ebce88525e7de7f00d6c2d3", NATTraversal::none, false}));

TEST(VendorIDs, TheBestIsTaken) {
  PeerExtensions extensions;
  for (const char *id : {"90cb80913ebb696e086381b5ec427b1f", "4a131c81070358455c5728f20e95452f",
                         "7d9419a65310ca6f2c179d9215529d56", "afcad71368a1f1c96b8696fc77570100"})
    extensions.add(fromHex(id));
  EXPECT_EQ(extensions.natTraversal, NATTraversal::rfc3947);
  EXPECT_TRUE(extensions.deadPeerDetection);
}

TEST(VendorIDs, AreHashesOfNames) {
  const std::vector<View> own = ownVendorIDs();
  ASSERT_EQ(own.size(), 3U);
  EXPECT_TRUE(sameBytes(own[0], hashOf(HashAlgorithm::md5, {bytesOf("RFC 3947")})));
  EXPECT_TRUE(sameBytes(own[1], hashOf(HashAlgorithm::md5, {bytesOf("draft-ietf-ipsec-nat-t-ike-02\n")})));
  EXPECT_EQ(hex(own[2]), "afcad71368a1f1c96b8696fc77570100");
}

TEST(VendorIDs, AnswerWhatWasNamed) {
  for (const NATTraversal version :
       {NATTraversal::none, NATTraversal::draft02, NATTraversal::draft03, NATTraversal::rfc3947}) {
    PeerExtensions back;
    for (const View id : vendorIDsFor({version, false})) back.add(id);
    EXPECT_EQ(back.natTraversal, version);
    EXPECT_TRUE(back.deadPeerDetection);
  }
}

TEST(VendorIDs, FixTheNumbers) {
  EXPECT_EQ(natDetectionPayload(NATTraversal::rfc3947), PayloadType::natDetection);
  EXPECT_EQ(natOriginalAddressPayload(NATTraversal::rfc3947), PayloadType::natOriginalAddress);
  EXPECT_EQ(udpTransportMode(NATTraversal::rfc3947), 4);
  for (const NATTraversal draft : {NATTraversal::draft02, NATTraversal::draft03}) {
    EXPECT_EQ(static_cast<int>(natDetectionPayload(draft)), 130);
    EXPECT_EQ(static_cast<int>(natOriginalAddressPayload(draft)), 131);
    EXPECT_EQ(udpTransportMode(draft), 61444);
  }
}

}  // namespace
}  // namespace helper::isakmp
