#include <gtest/gtest.h>

#include "platform/Security.h"
#include "platform/fake/FakePlatform.h"
#include "tests/platform/macos/frameworks/Frameworks.h"

namespace platform {
namespace {

using fake::FakePlatform;

class MacAuthorizationTest : public testing::Test {
 protected:
  MacAuthorizationTest() { platform_.reset(); }

  static AuthorizationRef create() {
    AuthorizationRef authorization;
    EXPECT_EQ(AuthorizationCreate(nullptr, nullptr, 0, &authorization), errAuthorizationSuccess);
    return authorization;
  }

  FakePlatform &platform_ = FakePlatform::instance();
  const int before_ = frameworks::authorizationsLeft();
  const AuthorizationRights rights_{{"system.preferences", 0, nullptr, 0}, {"other", 4, "four", 5}};
};

TEST_F(MacAuthorizationTest, HandsRightsEnvironmentAndFlagsOn) {
  const AuthorizationEnvironment environment{{"prompt", 1, "p", 2}};
  AuthorizationRef authorization;
  EXPECT_EQ(AuthorizationCreate(&rights_, &environment, 19, &authorization), errAuthorizationSuccess);
  EXPECT_EQ(AuthorizationCopyRights(authorization, rights_, &environment, 3, nullptr), errAuthorizationSuccess);
  const AuthorizationRights none;
  EXPECT_EQ(AuthorizationCopyRights(authorization, none, nullptr, 0, nullptr), errAuthorizationSuccess);
  EXPECT_EQ(
      platform_.calls(),
      (std::vector<std::string>{"AuthorizationCreate([{\"system.preferences\", 0, null, 0}, {\"other\", 4, value, 5}], "
                                "[{\"prompt\", 1, value, 2}], 19)",
                                "AuthorizationCopyRights(authorization, [{\"system.preferences\", 0, null, 0}, "
                                "{\"other\", 4, value, 5}], [{\"prompt\", 1, value, 2}], 3, null)",
                                "AuthorizationCopyRights(authorization, [], null, 0, null)"}));
}

TEST_F(MacAuthorizationTest, IsFreedWithItsLastReference) {
  AuthorizationRef authorization = create();
  const AuthorizationRef second = authorization;
  authorization.reset();
  EXPECT_EQ(frameworks::authorizationsLeft(), before_ + 1);
  authorization = create();
  authorization = second;
  EXPECT_EQ(frameworks::authorizationsLeft(), before_ + 1);
}

TEST_F(MacAuthorizationTest, OneThatNobodyWantsIsFreedAtOnce) {
  EXPECT_EQ(AuthorizationCreate(nullptr, nullptr, 0, nullptr), errAuthorizationSuccess);
  EXPECT_EQ(frameworks::authorizationsLeft(), before_);
}

// Their values would die with the system's set.
TEST_F(MacAuthorizationTest, GrantedRightsComeWithoutValues) {
  AuthorizationRights granted{{"old", 0, nullptr, 0}};
  {
    const AuthorizationRef authorization = create();
    EXPECT_EQ(AuthorizationCopyRights(authorization, rights_, nullptr, 0, &granted), errAuthorizationSuccess);
  }
  EXPECT_EQ(frameworks::authorizationsLeft(), before_) << "the set is freed, too";
  ASSERT_EQ(granted.size(), 2u);
  EXPECT_EQ(granted[1].name, "other");
  EXPECT_EQ(granted[1].flags, 5u);
  EXPECT_EQ(granted[1].valueLength, 0u);
  EXPECT_EQ(granted[1].value, nullptr);
}

TEST_F(MacAuthorizationTest, AFailureLeavesOutputsAlone) {
  const AuthorizationRef first = create();
  AuthorizationRef authorization = first;
  platform_.fail("AuthorizationCreate", errAuthorizationInternal);
  EXPECT_EQ(AuthorizationCreate(nullptr, nullptr, 0, &authorization), errAuthorizationInternal);
  EXPECT_EQ(authorization, first);

  AuthorizationRights granted{{"old", 0, nullptr, 0}};
  platform_.fail("AuthorizationCopyRights", errAuthorizationCanceled);
  EXPECT_EQ(AuthorizationCopyRights(first, rights_, nullptr, 0, &granted), errAuthorizationCanceled);
  ASSERT_EQ(granted.size(), 1u);
  EXPECT_EQ(granted[0].name, "old");
}

TEST_F(MacAuthorizationTest, WithoutAReferenceTheSystemIsNotAsked) {
  EXPECT_EQ(AuthorizationCopyRights(nullptr, rights_, nullptr, 0, nullptr), errAuthorizationInvalidRef);
  EXPECT_TRUE(platform_.calls().empty());
}

}  // namespace
}  // namespace platform
