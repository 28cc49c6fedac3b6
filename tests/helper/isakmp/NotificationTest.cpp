#include <gtest/gtest.h>

#include "helper/isakmp/Notification.h"
#include "tests/helper/isakmp/Hex.h"

namespace helper::isakmp {
namespace {

TEST(Notification, IsLaidOutAsOnTheWire) {
  EXPECT_EQ(hex(encode(Notification{3, 14, {1, 2, 3, 4}, {0xff}})), "000000010304000e01020304ff");
}

TEST(Notification, ComesBackAsItWas) {
  for (const Notification &notification : {Notification{1, 24578, sequence(1, 16), {}},
                                           Notification{3, 14, {1, 2, 3, 4}, {9, 9}}, Notification{1, 9, {}, {}}}) {
    const auto decoded = decodeNotification(encode(notification));
    ASSERT_TRUE(decoded) << decoded.error().message;
    EXPECT_EQ(*decoded, notification);
  }
}

TEST(Notification, MayBeOfNoDomain) { EXPECT_TRUE(decodeNotification(fromHex("00000000 0100000e"))); }

TEST(Notification, IsRefused) {
  const auto reason = [](const char *bytes) { return decodeNotification(fromHex(bytes)).error().message; };
  EXPECT_EQ(reason("00000001 010000"), "a notification shorter than its fixed part");
  EXPECT_EQ(reason("00000002 0100000e"), "a notification of another domain");
  EXPECT_EQ(reason("00000001 0104000e 010203"), "an SPI of an impossible length");
  EXPECT_EQ(reason("00000001 0111000e 0102030405060708090a0b0c0d0e0f1011"), "an SPI of an impossible length");
}

TEST(Notification, HasAName) {
  EXPECT_EQ(notificationName(14), "NO-PROPOSAL-CHOSEN");
  EXPECT_EQ(notificationName(24), "AUTHENTICATION-FAILED");
  EXPECT_EQ(notificationName(30), "UNEQUAL-PAYLOAD-LENGTHS");
  EXPECT_EQ(notificationName(31), "notification 31");
  EXPECT_EQ(notificationName(0), "notification 0");
  EXPECT_TRUE((Notification{1, 16383, {}, {}}.isError()));
  EXPECT_FALSE((Notification{1, 16384, {}, {}}.isError()));
}

TEST(Deletion, ComesBackAsItWas) {
  for (const Deletion &deletion :
       {Deletion{3, {{1, 2, 3, 4}, {5, 6, 7, 8}}}, Deletion{1, {sequence(1, 16)}}, Deletion{3, {{1, 2, 3, 4}}}}) {
    const auto decoded = decodeDeletion(encode(deletion));
    ASSERT_TRUE(decoded) << decoded.error().message;
    EXPECT_EQ(*decoded, deletion);
  }
  EXPECT_EQ(hex(encode(Deletion{3, {{1, 2, 3, 4}, {5, 6, 7, 8}}})), "00000001030400020102030405060708");
}

TEST(Deletion, IsRefused) {
  const auto reason = [](const char *bytes) { return decodeDeletion(fromHex(bytes)).error().message; };
  EXPECT_EQ(reason("00000001 030400"), "a delete shorter than its fixed part");
  EXPECT_EQ(reason("00000002 03040001 01020304"), "a delete of another domain");
  EXPECT_EQ(reason("00000001 03000001"), "an SPI of an impossible length");
  EXPECT_EQ(reason("00000001 03110001"), "an SPI of an impossible length");
  EXPECT_EQ(reason("00000001 03040000"), "an impossible number of SPIs");
  EXPECT_EQ(reason("00000001 03040041"), "an impossible number of SPIs");
  EXPECT_EQ(reason("00000001 03040002 01020304"), "a delete with another number of SPIs than it says");
  EXPECT_EQ(reason("00000001 03040001 0102030405"), "a delete with another number of SPIs than it says");
}

}  // namespace
}  // namespace helper::isakmp
