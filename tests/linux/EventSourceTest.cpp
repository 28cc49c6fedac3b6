#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <string>

#include "foundation/FileDescriptor.h"
#include "linux/EventSource.h"
#include "tests/support/LoopFixture.h"

using linux::EventSource;
using vpnctl::FileDescriptor;

namespace {

class EventSourceTest : public support::LoopFixture {};

// The kernel gives the number away again at once; the new descriptor must not lose its place in the loop when the old
// one's handler returns.
TEST_F(EventSourceTest, ADescriptorMayBeReplacedInItsHandler) {
  FileDescriptor first(::eventfd(1, EFD_CLOEXEC));
  FileDescriptor second;
  bool heard = false;
  EventSource firstSource;
  EventSource secondSource;
  firstSource = EventSource::io(
      event_, first.get(), EPOLLIN,
      [&](std::uint32_t) {
        const int number = first.get();
        firstSource.reset();
        first.reset();
        second.reset(::eventfd(1, EFD_CLOEXEC));
        ASSERT_EQ(second.get(), number);
        secondSource = EventSource::io(
            event_, second.get(), EPOLLIN, [&](std::uint32_t) { heard = true; });
      });
  EXPECT_TRUE(runUntil([&] { return heard; }, std::chrono::seconds(5)));
}

TEST_F(EventSourceTest, AHandlerMayReplaceItsOwnSource) {
  int count = 0;
  EventSource source;
  source = EventSource::soon(
      event_,
      [&] {
        ++count;
        source = EventSource::soon(
            event_, [&] { ++count; });
      });
  EXPECT_TRUE(runUntil([&] { return count == 2; }));
}

TEST_F(EventSourceTest, AnEndIsToldBeforeTheUsualSourcesHearOfIt) {
  std::string told;
  const EventSource early = EventSource::atExit(event_, [&] { told += "early "; });
  sd_event_source *usual = nullptr;
  ASSERT_GE(sd_event_add_exit(
                event_, &usual,
                [](sd_event_source *, void *text) {
                  *static_cast<std::string *>(text) += "usual";
                  return 0;
                },
                &told),
            0);
  EXPECT_EQ(told, "");
  finishLoop();
  EXPECT_EQ(told, "early usual");
  sd_event_source_unref(usual);
}

}  // namespace
