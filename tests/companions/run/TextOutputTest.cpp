#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <string>

#include "companions/run/Progress.h"
#include "companions/run/TextOutput.h"
#include "foundation/FileDescriptor.h"
#include "tests/support/LoopFixture.h"
#include "tests/support/TemporaryFolder.h"

using namespace companions;
using vpnctl::FileDescriptor;

namespace {

class TextOutputTest : public support::LoopFixture {
 protected:
  TextOutputTest() {
    std::signal(SIGPIPE, SIG_IGN);
    std::array<int, 2> ends{};
    EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    reader_.reset(ends[0]);
    writer_.reset(ends[1]);
    EXPECT_EQ(::fcntl(reader_.get(), F_SETFL, O_NONBLOCK), 0);
  }
  // What has arrived.
  std::string arrived() {
    std::string text;
    std::array<char, 4096> block;
    for (ssize_t size = 0; (size = ::read(reader_.get(), block.data(), block.size())) > 0;)
      text.append(block.data(), static_cast<std::size_t>(size));
    return text;
  }

  FileDescriptor reader_;
  FileDescriptor writer_;
};

TEST_F(TextOutputTest, WritesAtOnceWhatCanBeWritten) {
  TextOutput output(event_, writer_.get());
  EXPECT_TRUE(output.isAtLineStart());
  output.write("one\n");
  EXPECT_TRUE(output.isAtLineStart());
  output.write("two");
  EXPECT_FALSE(output.isAtLineStart());
  output.write("");
  output.decorate("\n");
  EXPECT_FALSE(output.isAtLineStart());
  EXPECT_EQ(arrived(), "one\ntwo\n");
}

TEST_F(TextOutputTest, WhatASlowReaderDoesNotTakeWaits) {
  bool drained = false;
  TextOutput output(event_, writer_.get(), [&] { drained = true; });
  std::string all;
  for (int i = 0; !output.isFull(); ++i) {
    const std::string line = std::to_string(i) + " and so on\n";
    output.write(line);
    all += line;
  }
  std::string read;
  EXPECT_TRUE(runUntil([&] {
    read += arrived();
    return drained;
  }));
  EXPECT_EQ(read + arrived(), all);
  EXPECT_FALSE(output.isFull());
}

TEST_F(TextOutputTest, FlushGivesUpInTime) {
  TextOutput output(event_, writer_.get());
  while (!output.isFull()) output.write(std::string(4000, 'x'));
  output.flush(std::chrono::milliseconds(10));
  EXPECT_TRUE(output.isFull());
}

TEST_F(TextOutputTest, WhoeverReadsMayGo) {
  TextOutput output(event_, writer_.get());
  reader_.reset();
  output.write("one\n");
  output.write("two\n");
  EXPECT_FALSE(output.isFull());
}

TEST_F(TextOutputTest, FilesAreWritten) {
  const support::TemporaryFolder folder;
  const FileDescriptor file(::open(folder.path("file").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  TextOutput output(event_, file.get());
  output.write("one\n");
  EXPECT_EQ(folder.read("file"), "one\n");
}

TEST_F(TextOutputTest, ProgressIsWrittenOver) {
  TextOutput output(event_, writer_.get());
  Progress progress(output, Progress::Form::line);
  progress.show("one");
  progress.show("one");
  progress.clear();
  output.write("a line\n");
  progress.again();
  progress.show("two\t");
  progress.end();
  progress.show("three");
  EXPECT_EQ(arrived(), "one\r\033[Ka line\none\r\033[Ktwo?\r\033[K");
}

TEST_F(TextOutputTest, ProgressDoesNotEndSomebodysHalfLine) {
  TextOutput output(event_, writer_.get());
  Progress progress(output, Progress::Form::line);
  output.write("half");
  progress.show("one");
  EXPECT_EQ(arrived(), "half");
}

TEST_F(TextOutputTest, ProgressIsNoWiderThanTheTerminal) {
  TextOutput output(event_, writer_.get());
  Progress progress(output, Progress::Form::line);
  progress.show(std::string(500, 'x'));
  EXPECT_EQ(arrived(), std::string(79, 'x'));
}

TEST_F(TextOutputTest, ProgressElsewhereIsLines) {
  TextOutput output(event_, writer_.get());
  Progress progress(output, Progress::Form::lines);
  progress.show("one");
  progress.show("one");
  progress.clear();
  progress.again();
  progress.show("two");
  EXPECT_EQ(arrived(), "vpnctl-run: one\nvpnctl-run: two\n");
}

TEST_F(TextOutputTest, NoProgressSaysNothing) {
  TextOutput output(event_, writer_.get());
  Progress progress(output, Progress::Form::none);
  progress.show("one");
  progress.again();
  progress.end();
  EXPECT_EQ(arrived(), "");
}

}  // namespace
