#include <gtest/gtest.h>

#include <string>

#include "companions/doctor/Report.h"

using namespace companions;
using Grade = Finding::Grade;

namespace {

Report reportOf(const Findings &findings) {
  Report report;
  report.add("One", findings);
  report.add("Nothing", {});
  return report;
}

const Finding kFine{Grade::fine, "a.fine", "It is fine.", "", ""};
const Finding kHinders{Grade::hinders, "a.hinders", "It hinders.", "It matters.", "mend it"};
const Finding kPrevents{Grade::prevents, "a.prevents", "It prevents.", "It matters much.", "mend it now"};
const Finding kUnseen{Grade::unseen, "a.unseen", "It is dark.", "It may matter.", ""};

TEST(Report, TellsTheWorstFirst) {
  EXPECT_EQ(reportOf({kFine, kUnseen, kHinders, kPrevents}).text({}),
            "One\n"
            "  prevents  It prevents.\n"
            "            It matters much.\n"
            "            -> mend it now\n"
            "  hinders   It hinders.\n"
            "            It matters.\n"
            "            -> mend it\n"
            "  unseen    It is dark.\n"
            "            It may matter.\n"
            "\n"
            "1 check found nothing.\n"
            "No connection comes about: 1 thing prevents one; 1 thing may hinder one; 1 thing could not be seen.\n");
}

TEST(Report, TellsWhatIsFineWhenAsked) {
  EXPECT_EQ(reportOf({kFine}).text({}), "1 check found nothing.\nNothing that was found prevents a connection.\n");
  EXPECT_EQ(reportOf({kFine}).text({.all = true}),
            "One\n  fine      It is fine.\n\nNothing that was found prevents a connection.\n");
}

TEST(Report, ColoursNothingUnasked) {
  EXPECT_EQ(reportOf({kPrevents, kFine}).text({}).find('\033'), std::string::npos);
  EXPECT_NE(reportOf({kPrevents}).text({.colours = true}).find("\033[1;31mprevents  \033[0mIt prevents."),
            std::string::npos);
}

TEST(Report, EndsWithOneOnlyForWhatPrevents) {
  EXPECT_EQ(reportOf({kFine, kUnseen, kHinders}).status(), 0);
  EXPECT_EQ(reportOf({kFine, kPrevents}).status(), 1);
}

TEST(Report, IsAnObjectALine) {
  const std::string hinders =
      R"({"grade":"hinders","name":"a.hinders","what":"It hinders.","why":"It matters.","remedy":"mend it"})"
      "\n";
  EXPECT_EQ(reportOf({kFine, kHinders}).json({}), hinders);
  EXPECT_EQ(reportOf({kFine, kHinders}).json({.all = true}),
            hinders + R"({"grade":"fine","name":"a.fine","what":"It is fine.","why":"","remedy":""})"
                      "\n");
}

TEST(Report, KeepsNamesFromTheTerminal) {
  const Finding named{Grade::hinders, "a.b", "It is called \033[2Jx\xff.", "It\nmatters.", "rm \a"};
  EXPECT_TRUE(reportOf({named}).text({}).starts_with(
      "One\n  hinders   It is called ?[2Jx?.\n            It?matters.\n            -> rm ?\n"));
}

TEST(Report, BreaksLongSentencesButNoRemedy) {
  const std::string word(60, 'x');
  const Finding finding{Grade::hinders, "a.b", word + " " + word, "", word + " " + word};
  EXPECT_TRUE(reportOf({finding}).text({}).starts_with("One\n  hinders   " + word + "\n            " + word +
                                                       "\n            -> " + word + " " + word + "\n"));
}

}  // namespace
