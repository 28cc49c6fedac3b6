#include <gtest/gtest.h>

#include "foundation/Base64.h"

namespace vpnctl {
namespace {

std::vector<std::uint8_t> bytes(std::string_view text) { return {text.begin(), text.end()}; }

TEST(Base64Test, TheVectorsOfRFC4648) {
  const std::pair<std::string_view, std::string_view> vectors[] = {{"", ""},
                                                                   {"f", "Zg=="},
                                                                   {"fo", "Zm8="},
                                                                   {"foo", "Zm9v"},
                                                                   {"foob", "Zm9vYg=="},
                                                                   {"fooba", "Zm9vYmE="},
                                                                   {"foobar", "Zm9vYmFy"}};
  for (const auto &[plain, encoded] : vectors) {
    EXPECT_EQ(base64Encoded(bytes(plain)), encoded);
    EXPECT_EQ(base64Decoded(encoded), bytes(plain));
  }
}

TEST(Base64Test, EveryByteComesBack) {
  std::vector<std::uint8_t> all;
  for (int i = 0; i < 256; ++i) all.push_back(static_cast<std::uint8_t>(i));
  EXPECT_EQ(base64Decoded(base64Encoded(all)), all);
  EXPECT_EQ(base64Encoded(std::vector<std::uint8_t>{0xfb, 0xff, 0xfe}), "+//+");
}

TEST(Base64Test, WhiteSpaceMayStandAnywhere) { EXPECT_EQ(base64Decoded("\n\tZ m\r\n8 =\n"), bytes("fo")); }

TEST(Base64Test, RefusesWhatIsNotBase64) {
  for (const std::string_view text : {"Z", "Zg", "Zg=", "Zg===", "=", "====", "Z===", "Zg==Zg==", "Zm8=x",
                                      "Zm8==", "Zm9v=", "Zm-v", "Zm9v\xc3\xa9", "Zh==", "Zm9=", "Z=g="})
    EXPECT_EQ(base64Decoded(text), std::nullopt) << text;
}

}  // namespace
}  // namespace vpnctl
