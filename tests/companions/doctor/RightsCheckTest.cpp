#include <gtest/gtest.h>

#include <algorithm>

#include "companions/doctor/LeftoversCheck.h"
#include "companions/doctor/RightsCheck.h"
#include "tests/companions/doctor/LaidOutMachine.h"

using namespace companions;
using Grade = Finding::Grade;
using Verdict = helper::Authority::Verdict;

namespace {

Grade gradeOf(const Findings &findings, std::string_view name) {
  const auto found = std::ranges::find(findings, name, &Finding::name);
  EXPECT_NE(found, findings.end()) << name;
  return found == findings.end() ? Grade::fine : found->grade;
}

class RightsCheckTest : public testing::Test {
 protected:
  RightsCheckTest() { machine_.user = 1000; }
  Findings look() const { return RightsCheck::look(machine_.situation()); }
  LaidOutMachine machine_;
};

TEST_F(RightsCheckTest, RootNeedsNone) {
  machine_.user = 0;
  EXPECT_TRUE(look().empty());
}

TEST_F(RightsCheckTest, SomebodyHasToListen) {
  machine_.remove("policy");  // polkit is not asked then
  EXPECT_EQ(gradeOf(look(), "rights.socket"), Grade::fine);
  machine_.write("proc/net/unix",
                 "Num       RefCount Protocol Flags    Type St Inode Path\n"
                 "0000000000000000: 00000003 00000000 00000000 0001 03 1234 /run/vpnctl.socket\n");
  EXPECT_EQ(gradeOf(look(), "rights.socket"), Grade::prevents);
}

TEST_F(RightsCheckTest, PolkitHasToKnowVpnctl) {
  machine_.remove("policy");
  const Findings found = look();
  EXPECT_EQ(gradeOf(found, "rights.policy"), Grade::prevents);
  EXPECT_EQ(found.size(), 2U) << "there is nothing to be asked";
}

TEST_F(RightsCheckTest, SaysWhatPolkitSays) {
  const auto gradeFor = [](Verdict verdict) { return RightsCheck::findingOf({verdict, "It says."}).grade; };
  EXPECT_EQ(gradeFor(Verdict::granted), Grade::fine);
  EXPECT_EQ(gradeFor(Verdict::interactionWanted), Grade::fine);
  EXPECT_EQ(gradeFor(Verdict::denied), Grade::prevents);
  EXPECT_EQ(gradeFor(Verdict::nobodyToAsk), Grade::prevents);
  EXPECT_EQ(gradeFor(Verdict::unavailable), Grade::prevents);
  EXPECT_EQ(RightsCheck::findingOf({Verdict::denied, "It says."}).what, "It says.");
}

}  // namespace
