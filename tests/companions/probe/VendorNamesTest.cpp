#include <gtest/gtest.h>

#include "companions/probe/VendorNames.h"
#include "helper/isakmp/VendorIDs.h"

using companions::vendorName;
using companions::vendorNames;
using helper::isakmp::Bytes;
using helper::isakmp::View;

namespace {

const Bytes kStrongSwan{0x88, 0x2f, 0xe5, 0x6d, 0x6f, 0xd2, 0x0d, 0xbc, 0x22, 0x51, 0x61, 0x3b, 0x2e, 0xbe, 0x5b, 0xeb};
// With a version behind it.
const Bytes kWindows{0x1e, 0x2b, 0x51, 0x69, 0x05, 0x99, 0x1c, 0x7d, 0x7c, 0x96,
                     0xfc, 0xbf, 0xb5, 0x87, 0xe4, 0x61, 0x00, 0x00, 0x00, 0x09};

TEST(VendorNamesTest, NamesPrograms) {
  EXPECT_EQ(vendorName(kStrongSwan), "strongSwan");
  EXPECT_EQ(vendorName(kWindows), "Windows");
}

TEST(VendorNamesTest, NamesWhatWeSayOurselves) {
  EXPECT_EQ(vendorNames(helper::isakmp::ownVendorIDs()),
            (std::vector<std::string>{"NAT traversal (RFC 3947)", "NAT traversal (draft 2)", "dead peer detection"}));
}

TEST(VendorNamesTest, IsSilentAboutOthers) {
  EXPECT_EQ(vendorName({}), "");
  EXPECT_EQ(vendorName(View(kStrongSwan).first(15)), "");
  EXPECT_EQ(vendorName(Bytes(16, 0)), "");
  const Bytes other(300, 0xff);
  EXPECT_EQ(vendorNames({other, kStrongSwan, kStrongSwan}), std::vector<std::string>{"strongSwan"});
}

}  // namespace
