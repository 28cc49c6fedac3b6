// The typed print calls: what is printed follows the arguments' types, and nothing else is read.

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>

#include "cli/GBPrint.h"
#include "tests/cli/StreamCapture.h"

using GB::PrintFormatFault;
using GB::RuntimeFormat;
using vpnctl::Value;

namespace {

template <class... Arguments>
std::string printed(GB::CheckedFormat<Arguments...> format, const Arguments &...arguments) {
  return printedBy(
      stdout, [&] { GB::gbprint<Arguments...>(format, arguments...); });
}

// Memory behind whose last byte nothing may be read.
class Edge {
 public:
  Edge() : size_(static_cast<std::size_t>(::sysconf(_SC_PAGESIZE))) {
    pages_ =
        static_cast<char *>(::mmap(nullptr, 2 * size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    if (pages_ == MAP_FAILED || ::mprotect(pages_ + size_, size_, PROT_NONE) != 0) std::abort();
  }
  Edge(const Edge &) = delete;
  Edge &operator=(const Edge &) = delete;
  ~Edge() { ::munmap(pages_, 2 * size_); }

  template <class Character>
  const Character *endWith(std::basic_string_view<Character> text) {
    char *start = pages_ + size_ - text.size() * sizeof(Character);
    std::memcpy(start, text.data(), text.size() * sizeof(Character));
    return reinterpret_cast<const Character *>(start);
  }

 private:
  std::size_t size_;
  char *pages_;
};

}  // namespace

TEST(GBPrintTyped, ObjectsAreWhateverTheArgumentIs) {
  EXPECT_EQ(printed("%@", "text"), "text");
  EXPECT_EQ(printed("%@", 5), "5");
  EXPECT_EQ(printed("%@ %@", -7L, 18446744073709551615ULL), "-7 18446744073709551615");
  EXPECT_EQ(printed("%@ %@ %@", 1.5, 2.25F, 0.5L), "1.5 2.25 0.5");
  EXPECT_EQ(printed("%@ %@", true, nullptr), "1 (null)");
  EXPECT_EQ(printed("%@ %@", std::string("a"), std::string_view("bc").substr(0, 1)), "a b");
  EXPECT_EQ(printed("%@ %@", L"wide \u00e9", u"\U0001f600"), "wide \u00e9 \U0001f600");
  const Value value = 3;
  const Value *nothing = nullptr;
  EXPECT_EQ(printed("%@ %@ %@", value, &value, nothing), "3 3 (null)");
  EXPECT_EQ(printed("%@", Value::Dictionary{{"a", 1}}), Value(Value::Dictionary{{"a", 1}}).description());
}

TEST(GBPrintTyped, StringsTakeTextOfEveryKind) {
  EXPECT_EQ(printed("%s", std::string("text")), "text");
  EXPECT_EQ(printed("[%6s|%-6s|%.2s]", std::string("abc"), std::string_view("abc"), "abc"), "[   abc|abc   |ab]");
  EXPECT_EQ(printed("%s %s", std::optional<std::string>("some"), std::optional<std::string>()), "some (null)");
  EXPECT_EQ(printed("%s", Value(1.5)), "1.5");
  EXPECT_EQ(printed("%s", static_cast<const char *>(nullptr)), "(null)");
  EXPECT_EQ(printed("%ls %S %.1ls", L"w", u"u", L"xy"), "w u x");
}

TEST(GBPrintTyped, IntegersKeepTheirTypesWidth) {
  EXPECT_EQ(printed("%d %ld %hhd", 5000000000L, 3, 257), "5000000000 3 1");
  EXPECT_EQ(printed("%u %x %X", -1, -1, static_cast<signed char>(-1)), "4294967295 ffffffff FF");
  EXPECT_EQ(printed("%x %lx", -1L, -1), "ffffffffffffffff ffffffff");
  EXPECT_EQ(printed("%d %+d %d", 4000000000U, 5U, std::numeric_limits<std::uint64_t>::max()),
            "4000000000 +5 18446744073709551615");
  EXPECT_EQ(printed("%c%c|%*d|%-*d|", 'a', 98, 4, 7, 3U, 7), "ab|   7|7  |");
  enum class Colour : short { red = 3 };
  EXPECT_EQ(printed("%d", Colour::red), "3");
}

TEST(GBPrintTyped, RealsKeepTheirPrecision) {
  EXPECT_EQ(printed("%.2f %Lg %g %a", 1.25F, 0.5, 0.5L, 1.0), "1.25 0.5 0.5 0x1p+0");
}

TEST(GBPrintTyped, PointersOfAnyKindHaveAnAddress) {
  const int number = 0;
  const void *address = &number;
  char expected[32];
  std::snprintf(expected, sizeof expected, "%p", address);
  EXPECT_EQ(printed("%p %p", &number, address), std::string(expected) + " " + expected);
  EXPECT_EQ(printed("%p", nullptr), "0x0");
}

TEST(GBPrintTyped, NothingBehindATextIsRead) {
  Edge edge;
  EXPECT_EQ(printed("%@ %s", edge.endWith(std::string_view("bytes\0", 6)), "x"), "bytes x");
  EXPECT_EQ(printed("%.5s|", edge.endWith(std::string_view("bytes"))), "bytes|");
  EXPECT_EQ(printed("%.*s|", 5, edge.endWith(std::string_view("bytes"))), "bytes|");
  EXPECT_EQ(printed("%.2ls|", edge.endWith(std::wstring_view(L"ab"))), "ab|");
  EXPECT_EQ(printed("%.2S|", edge.endWith(std::u16string_view(u"ab"))), "ab|");
  EXPECT_EQ(printed("%s|", std::string_view(edge.endWith(std::string_view("view")), 4)), "view|");
  struct {
    char text[4] = {'f', 'o', 'u', 'r'};
    char other[4] = {'m', 'o', 'r', 'e'};
  } both;
  EXPECT_EQ(printed("%s %@", both.text, both.text), "four four");
}

TEST(GBPrintTyped, AFormatOfRunTimeReadsNothingButItsArguments) {
  const auto print = [](const char *format, const auto &...arguments) {
    return printedBy(stdout, [&] { GB::gbprint(RuntimeFormat(format), arguments...); });
  };
  EXPECT_EQ(print("%@ %@", 1), "1 %@");
  EXPECT_EQ(print("%s %d %f %p %s"), "%s %d %f %p %s");
  EXPECT_EQ(print("%s %d %f", 5, "text", std::string("t")), "5 text t");
  EXPECT_EQ(print("%p", 5), "5");
  EXPECT_EQ(print("%*d|%.*s", "wide", 3), "%*d|%.*s");
  EXPECT_EQ(print("%999$d %3$d %n %", 1), "%999$d %3$d %n %");
  EXPECT_EQ(print("%2$s %1$s", "a", "b"), "b a");
}

TEST(GBPrintTyped, EveryKindOfArgumentUnderEveryConversionIsSafe) {
  const std::string conversions = "diouxXcCaAeEfFgGsSpn@%q";
  const Value value = "v";
  for (const char *length : {"", "h", "hh", "l", "ll", "L", "q", "z", "-5", "*", ".*", "1$", "9$"}) {
    for (const char conversion : conversions) {
      const std::string format = std::string("[%") + length + conversion + "]";
      const auto print = [&](const auto &...arguments) {
        return printedBy(stdout, [&] { GB::gbprint(RuntimeFormat(format.c_str()), arguments...); });
      };
      for (const std::string &text :
           {print(), print(1), print(1.5), print(2.5L), print("text"), print(L"text"), print(u"text"), print(nullptr),
            print(&value), print(value), print(&format), print(std::string("s")), print(3, "text"), print(3, 4)})
        EXPECT_TRUE(text.starts_with("[")) << format << " " << text;
    }
  }
}

TEST(GBPrintTyped, AFormatIsComparedWithItsArguments) {
  static_assert(GB::printFormatFault<>("100%! %% %n %5") == PrintFormatFault::none);
  static_assert(GB::printFormatFault<int>("%") == PrintFormatFault::none);
  static_assert(GB::printFormatFault<int, int>("%d") == PrintFormatFault::none);
  static_assert(GB::printFormatFault<int, int>("%2$d") == PrintFormatFault::none);
  static_assert(GB::printFormatFault<int, double>("%*.1f|") == PrintFormatFault::none);
  static_assert(GB::printFormatFault<Value>("%@ %@") == PrintFormatFault::missingArgument);
  static_assert(GB::printFormatFault<int>("%2$d") == PrintFormatFault::missingArgument);
  static_assert(GB::printFormatFault<int>("%*d") == PrintFormatFault::missingArgument);
  static_assert(GB::printFormatFault<int>("%s") == PrintFormatFault::wrongArgument);
  static_assert(GB::printFormatFault<int>("%f") == PrintFormatFault::wrongArgument);
  static_assert(GB::printFormatFault<double>("%d") == PrintFormatFault::wrongArgument);
  static_assert(GB::printFormatFault<const char *>("%ls") == PrintFormatFault::wrongArgument);
  static_assert(GB::printFormatFault<void *>("%@") == PrintFormatFault::wrongArgument);
  static_assert(GB::printFormatFault<double, int>("%*d") == PrintFormatFault::wrongArgument);
  static_assert(GB::printFormatFault<std::string>("%p") == PrintFormatFault::wrongArgument);
}

TEST(GBPrintTyped, ANullFormatEndsInAnException) {
  EXPECT_THROW(GB::gbprint(RuntimeFormat(nullptr)), std::invalid_argument);
  EXPECT_THROW(GB::gbprintln(RuntimeFormat(nullptr), 1), std::invalid_argument);
}
