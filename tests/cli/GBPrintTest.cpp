#include <gtest/gtest.h>

#include "cli/GBPrint.h"
#include "tests/cli/StreamCapture.h"

using vpnctl::Value;

TEST(GBPrint, PrintlnWithAnEmptyFormatWritesExactlyOneNewline) {
  EXPECT_EQ(printedBy(
                stdout, [] { gbprintln(""); }),
            "\n");
  EXPECT_EQ(printedBy(stdout, [] { gbprint(""); }), "");
}

TEST(GBPrint, FprintToStandardErrorWritesTheObjectAndTheNumberAndNothingAfter) {
  const Value object = "thing";
  EXPECT_EQ(printedBy(
                stderr, [&] { gbfprint(stderr, "%@ and %d", &object, 5); }),
            "thing and 5");
  EXPECT_EQ(printedBy(stderr, [&] { gbfprintln(stderr, "%@ and %d", &object, 5); }), "thing and 5\n");
}

TEST(GBPrint, NonASCIITextInArgumentsReachesTheStreamAsUTF8) {
  const Value object = "gr\u00fc\u00df \U0001f600";
  EXPECT_EQ(printedBy(stdout, [&] { gbprintln("%@, %s", &object, "\u00e9"); }),
            "gr\xc3\xbc\xc3\x9f \xf0\x9f\x98\x80, \xc3\xa9\n");
}

TEST(GBPrint, StandardOutputIsLeftInTheStreamsBuffer) {
  StreamCapture capture(stdout);
  std::setvbuf(stdout, nullptr, _IOFBF, BUFSIZ);
  gbprint("kept");
  gbprintln(" back");
  EXPECT_EQ(capture.textWithoutFlushing(), "");
  EXPECT_EQ(capture.text(), "kept back\n");
}

TEST(GBPrint, TheNewlineOfPrintlnPassesThroughTheFormatter) {
  // "%" takes the newline along as an unknown conversion, which is copied as it stands.
  EXPECT_EQ(printedBy(stdout, [] { gbprintln("100%"); }), "100%\n");
}

TEST(GBPrint, TakesWidthsPrecisionsAndLengthModifiers) {
  EXPECT_EQ(printedBy(
                stdout, [] { gbprint("[%5d|%-5s|%05.1f|%llx|%hhd|%*d]", 42, "ab", 2.25, 255LL, 257, 3, 7); }),
            "[   42|ab   |002.2|ff|1|  7]");
}

TEST(GBPrint, NullObjectPrintsNull) {
  const Value *nothing = nullptr;
  EXPECT_EQ(printedBy(stdout, [&] { gbprint("%@", nothing); }), "(null)");
}

TEST(GBPrint, TextEndsAtAZeroByteAsFputsHasIt) {
  EXPECT_EQ(printedBy(
                stdout, [] { gbprint("a%cb", 0); }),
            "a");
}

TEST(GBPrint, TypedCallsTakeValuesAndStringsAsTheyAre) {
  const std::string text = "text";
  const std::optional<std::string> none;
  const auto print = [&] {
    GB::gbprint("%@ %@ %@ %d %s|", Value(1.5), text, none, 3, "literal");
    GB::gbprintln("%@", std::optional<std::string>("some"));
    GB::gbfprint(stdout, "%@", true ? Value(true) : Value());
    GB::gbfprintln(stdout, "%s%c", text.c_str(), '!');
  };
  EXPECT_EQ(printedBy(stdout, print), "1.5 text (null) 3 literal|some\n1text!\n");
}

TEST(GBPrint, ANullFormatEndsInAnException) { EXPECT_THROW(gbprint(nullptr), std::invalid_argument); }
