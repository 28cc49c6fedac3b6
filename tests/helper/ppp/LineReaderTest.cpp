#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <string>
#include <vector>

#include "helper/ppp/LineReader.h"
#include "tests/support/LoopFixture.h"

using namespace helper;

namespace {

class LineReaderTest : public support::LoopFixture {
 protected:
  LineReaderTest() {
    std::array<int, 2> ends{};
    EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    writer_.reset(ends[1]);
    reader_.emplace(event_, vpnctl::FileDescriptor(ends[0]),
                    [this](std::string_view line) { lines_.emplace_back(line); });
  }
  void write(const std::string &text) {
    ASSERT_EQ(::write(writer_.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }

  vpnctl::FileDescriptor writer_;
  std::optional<LineReader> reader_;
  std::vector<std::string> lines_;
};

TEST_F(LineReaderTest, PutsLinesTogetherHoweverTheyCome) {
  const std::string text = "one\n\ntwo three\nfour";
  for (const char character : text) {
    write({character});
    reader_->drain();
  }
  EXPECT_EQ(lines_, (std::vector<std::string>{"one", "", "two three"}));
  reader_->finish();
  EXPECT_EQ(lines_.back(), "four");
  lines_.clear();
  write(text);
  ASSERT_TRUE(runUntil([this] { return lines_.size() == 3; }));
}

TEST_F(LineReaderTest, CutsALineThatIsTooLong) {
  write(std::string(LineReader::kMaximumLine + 5, 'x') + "\n");
  reader_->drain();
  ASSERT_EQ(lines_.size(), 2U);
  EXPECT_EQ(lines_[0].size() + lines_[1].size(), LineReader::kMaximumLine + 5);
}

TEST_F(LineReaderTest, IsQuietWhenTheWriterIsGone) {
  write("last");
  writer_.reset();
  while (sd_event_run(event_, 0) > 0) continue;
  EXPECT_EQ(sd_event_run(event_, 0), 0) << "nothing is left to wait for";
  EXPECT_TRUE(lines_.empty());
  reader_->finish();
  EXPECT_EQ(lines_, std::vector<std::string>{"last"});
  reader_->finish();
  EXPECT_EQ(lines_.size(), 1U);
}

}  // namespace
