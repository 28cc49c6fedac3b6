#include <gtest/gtest.h>

#include <functional>
#include <thread>

#include "platform/SCErrorState.h"
#include "platform/SystemConfiguration.h"
#include "platform/fake/FakePlatform.h"
#include "tests/platform/macos/frameworks/Frameworks.h"

namespace platform {
namespace {

using fake::extendedStatus;
using fake::FakePlatform;
using fake::StatusChange;
using vpnctl::Value;

// What the callbacks were told.
struct Told {
  struct Change {
    SCNetworkConnectionStatus status = 0;
    std::int32_t error = 0;
    Value extendedStatus;
  };
  std::vector<Change> changes;
  std::function<void()> inside;
};

void tell(SCNetworkConnectionRef connection, SCNetworkConnectionStatus status, void *info) {
  Told &told = *static_cast<Told *>(info);
  told.changes.push_back({status, SCError(), SCNetworkConnectionCopyExtendedStatus(connection)});
  if (told.inside) told.inside();
  if (status == kSCNetworkConnectionDisconnected) CFRunLoopStop(CFRunLoopGetCurrent());
}

class MacNetworkConnectionTest : public testing::Test {
 protected:
  MacNetworkConnectionTest() {
    platform_.reset();
    context_.info = &told_;
    connection_ = create();
  }

  SCNetworkConnectionRef create() const { return SCNetworkConnectionCreateWithServiceID("id", tell, context_); }
  void schedule() {
    ASSERT_TRUE(SCNetworkConnectionScheduleWithRunLoop(connection_, CFRunLoopGetCurrent(), kCFRunLoopDefaultMode));
  }
  void run() {
    schedule();
    ASSERT_TRUE(SCNetworkConnectionStart(connection_, {}, false));
    CFRunLoopRun();
  }
  std::vector<std::int32_t> errors() const {
    std::vector<std::int32_t> errors;
    for (const Told::Change &change : told_.changes) errors.push_back(change.error);
    return errors;
  }
  std::size_t count(const std::string &call) const { return platform_.calls(call + "(").size(); }

  FakePlatform &platform_ = FakePlatform::instance();
  Told told_;
  SCNetworkConnectionContext context_;
  SCNetworkConnectionRef connection_;
};

TEST_F(MacNetworkConnectionTest, TellsItsChangesWithTheCallersInfo) {
  platform_.up = {StatusChange{1, extendedStatus(5), 0, {}}, StatusChange{0, extendedStatus(0, 19), 2002, {}}};
  run();
  ASSERT_EQ(told_.changes.size(), 2u);
  EXPECT_EQ(told_.changes[0].status, 1);
  EXPECT_EQ(told_.changes[0].extendedStatus, extendedStatus(5));
  EXPECT_EQ(told_.changes[1].status, 0);
  EXPECT_EQ(told_.changes[1].extendedStatus, extendedStatus(0, 19));
  EXPECT_EQ(errors(), (std::vector<std::int32_t>{0, 2002}));
  EXPECT_EQ(SCNetworkConnectionGetStatus(connection_), 0);
}

// The system hardly ever clears its error.
TEST_F(MacNetworkConnectionTest, AnOldErrorIsNoNews) {
  frameworks::setSystemsError(1004);
  platform_.up = {StatusChange{1, {}, 1004, {}}, StatusChange{2, {}, 2002, {}}, StatusChange{3, {}, 2002, {}},
                  StatusChange{0, {}, 0, {}}};
  schedule();
  ASSERT_TRUE(SCNetworkConnectionStart(connection_, {}, false));
  EXPECT_EQ(SCError(), 0);
  CFRunLoopRun();
  EXPECT_EQ(errors(), (std::vector<std::int32_t>{0, 2002, 0, 0}));
}

TEST_F(MacNetworkConnectionTest, WhatACallMeanwhileHasToldIsNoNews) {
  platform_.up = {StatusChange{1, {}, 1003, {}}, StatusChange{0, {}, 2002, {}}};
  schedule();
  ASSERT_TRUE(SCNetworkConnectionStart(connection_, {}, false));
  platform_.fail("SCNetworkInterfaceCreateWithInterface", 1003);
  EXPECT_EQ(SCNetworkInterfaceCreateWithInterface(kSCNetworkInterfaceIPv4, kSCNetworkInterfaceTypeL2TP), nullptr);
  EXPECT_EQ(SCError(), 1003);
  CFRunLoopRun();
  EXPECT_EQ(errors(), (std::vector<std::int32_t>{0, 2002}));
}

TEST_F(MacNetworkConnectionTest, WhatTheCallbackItselfLeftBehindIsNoNews) {
  told_.inside = [] { frameworks::setSystemsError(1004); };
  platform_.up = {StatusChange{1, {}, 0, {}}, StatusChange{0, {}, 1004, {}}};
  run();
  EXPECT_EQ(errors(), (std::vector<std::int32_t>{0, 0}));
}

// Whether made up for or at once: it fails without a word, and the next change is not to be blamed.
TEST_F(MacNetworkConnectionTest, WhatAFailedStopLeftBehindIsNoNews) {
  EXPECT_TRUE(SCNetworkConnectionStop(connection_, true));
  frameworks::failStops(1001);
  platform_.up = {StatusChange{1, {}, 1001, {}}, StatusChange{0, {}, 2002, {}}};
  run();
  EXPECT_EQ(errors(), (std::vector<std::int32_t>{0, 2002}));

  told_.changes.clear();
  frameworks::setSystemsError(0);
  platform_.up = {StatusChange{0, {}, 1001, {}}};
  ASSERT_TRUE(SCNetworkConnectionStart(connection_, {}, false));
  EXPECT_TRUE(SCNetworkConnectionStop(connection_, true)) << "false is for an empty reference";
  CFRunLoopRun();
  EXPECT_EQ(errors(), std::vector<std::int32_t>{0});
  frameworks::failStops(0);
}

TEST_F(MacNetworkConnectionTest, AStopBeforeTheStartIsMadeUpFor) {
  platform_.up = {StatusChange{2, extendedStatus(8), 0, {}}};
  EXPECT_TRUE(SCNetworkConnectionStop(connection_, true));
  run();
  ASSERT_FALSE(told_.changes.empty());
  EXPECT_EQ(told_.changes.back().status, 0);
  EXPECT_EQ(platform_.calls("SCNetworkConnectionStop"),
            std::vector<std::string>(2, "SCNetworkConnectionStop(connection, true)"));
  ASSERT_TRUE(SCNetworkConnectionStart(connection_, {}, false));
  EXPECT_EQ(count("SCNetworkConnectionStop"), 2u) << "once";
}

// It may have failed because the service is up already.
TEST_F(MacNetworkConnectionTest, AStopIsStillToBeMadeUpForAfterAStartThatFailed) {
  platform_.fail("SCNetworkConnectionStart", 1001, 1);
  SCNetworkConnectionStop(connection_, true);
  schedule();
  EXPECT_FALSE(SCNetworkConnectionStart(connection_, {}, false));
  EXPECT_EQ(count("SCNetworkConnectionStop"), 1u);
  ASSERT_TRUE(SCNetworkConnectionStart(connection_, {}, false));
  EXPECT_EQ(count("SCNetworkConnectionStop"), 2u);
}

TEST_F(MacNetworkConnectionTest, AStopOfWhatIsUpIsHandedOnAsItIs) {
  platform_.up = {StatusChange{2, extendedStatus(8), 0, {}}};
  told_.inside = [this] {
    if (told_.changes.size() > 1) return;
    std::thread([this] { EXPECT_TRUE(SCNetworkConnectionStop(connection_, false)); }).join();
  };
  run();
  EXPECT_EQ(platform_.calls("SCNetworkConnectionStop"),
            std::vector<std::string>{"SCNetworkConnectionStop(connection, false)"});
  ASSERT_TRUE(SCNetworkConnectionStart(connection_, {}, false));
  EXPECT_EQ(count("SCNetworkConnectionStop"), 1u) << "it is not kept for the next start";
}

TEST_F(MacNetworkConnectionTest, LeavesItsRunLoopWhenItGoes) {
  schedule();
  connection_.reset();  // or the frameworks would end this
  connection_ = create();
  connection_.reset();
}

TEST_F(MacNetworkConnectionTest, MayGoInsideOfItsOwnCallback) {
  platform_.up = {StatusChange{0, extendedStatus(0), 0, {}}};
  schedule();
  ASSERT_TRUE(SCNetworkConnectionStart(connection_, {}, false));
  const std::weak_ptr<SCNetworkConnection> seen = connection_;
  told_.inside = [this] { connection_.reset(); };
  platform_.down.clear();
  CFRunLoopRun();
  EXPECT_EQ(told_.changes.size(), 1u);
  EXPECT_TRUE(seen.expired());
}

TEST_F(MacNetworkConnectionTest, IsOnOneRunLoopOnly) {
  schedule();
  schedule();
  EXPECT_EQ(count("SCNetworkConnectionScheduleWithRunLoop"), 1u);
  CFRunLoopRef other;
  std::thread([&] { other = CFRunLoopGetCurrent(); }).join();
  EXPECT_FALSE(SCNetworkConnectionScheduleWithRunLoop(connection_, other, kCFRunLoopDefaultMode));
  EXPECT_EQ(SCError(), kSCStatusInvalidArgument);
}

TEST_F(MacNetworkConnectionTest, AFailedSchedulingIsToldAndMayBeTriedAgain) {
  platform_.fail("SCNetworkConnectionScheduleWithRunLoop", 1001, 1);
  EXPECT_FALSE(SCNetworkConnectionScheduleWithRunLoop(connection_, CFRunLoopGetCurrent(), kCFRunLoopDefaultMode));
  EXPECT_EQ(SCError(), 1001);
  schedule();
  EXPECT_EQ(SCError(), 0);
  EXPECT_FALSE(SCNetworkConnectionScheduleWithRunLoop(create(), CFRunLoopGetCurrent(), "another mode"));
  EXPECT_EQ(SCError(), kSCStatusInvalidArgument);
}

TEST_F(MacNetworkConnectionTest, StartsWithOptionsAndLinger) {
  platform_.fail("SCNetworkConnectionStart", 5001, 1);
  EXPECT_FALSE(SCNetworkConnectionStart(connection_, Value::Dictionary{{"PPP", Value::Dictionary{}}}, true));
  EXPECT_EQ(SCError(), 5001);
  EXPECT_EQ(platform_.calls().back(), "SCNetworkConnectionStart(connection, {PPP={}}, true)");
  for (const Value &options : {Value("text"), Value(Value::Dictionary{{"key", "\xff"}})}) {
    EXPECT_FALSE(SCNetworkConnectionStart(connection_, options, false));
    EXPECT_EQ(SCError(), kSCStatusInvalidArgument);
  }
  EXPECT_EQ(count("SCNetworkConnectionStart"), 1u);
  setSCError(4711);
  EXPECT_TRUE(SCNetworkConnectionStart(connection_, {}, false));
  EXPECT_EQ(SCError(), 0);
}

TEST_F(MacNetworkConnectionTest, WithoutAServiceThereIsNoConnection) {
  EXPECT_EQ(SCNetworkConnectionCreateWithServiceID(std::nullopt, tell, context_), nullptr);
  EXPECT_EQ(SCError(), kSCStatusInvalidArgument);
  setSCError(kSCStatusStale);
  EXPECT_EQ(SCNetworkConnectionCreateWithServiceID(std::nullopt, tell, context_), nullptr);
  EXPECT_EQ(SCError(), kSCStatusStale);
  EXPECT_EQ(SCNetworkConnectionCreateWithServiceID("\xff", tell, context_), nullptr);
  EXPECT_EQ(SCError(), kSCStatusInvalidArgument);
  EXPECT_EQ(count("SCNetworkConnectionCreateWithServiceID"), 1u) << "the fixture's";
  EXPECT_NE(create(), nullptr);
  EXPECT_EQ(SCError(), 0);
  platform_.fail("SCNetworkConnectionCreateWithServiceID", 1001);
  EXPECT_EQ(create(), nullptr);
  EXPECT_EQ(SCError(), 1001);
}

TEST_F(MacNetworkConnectionTest, TheInfoIsRetainedAndReleasedWhereAsked) {
  static int held;
  held = 0;
  context_.retain = [](const void *info) {
    ++held;
    return info;
  };
  context_.release = [](const void *) { --held; };
  auto connection = create();
  EXPECT_EQ(held, 1);
  EXPECT_EQ(platform_.calls().back(),
            "SCNetworkConnectionCreateWithServiceID(\"id\", callback, {0, info, null, null, null})")
      << "by us, not by the system";
  connection.reset();
  EXPECT_EQ(held, 0);
  platform_.fail("SCNetworkConnectionCreateWithServiceID", 1001);
  create();
  EXPECT_EQ(held, 0);
}

TEST_F(MacNetworkConnectionTest, WithoutACallbackNothingIsTold) {
  connection_ = SCNetworkConnectionCreateWithServiceID("id", nullptr, context_);
  auto second = create();
  platform_.up = {StatusChange{1, {}, 0, {}}};
  schedule();
  ASSERT_TRUE(SCNetworkConnectionStart(connection_, {}, false));
  connection_.swap(second);
  platform_.up = {StatusChange{0, {}, 0, {}}};
  run();
  EXPECT_EQ(told_.changes.size(), 1u);
}

TEST_F(MacNetworkConnectionTest, NothingIsAnInvalidArgument) {
  const std::size_t before = platform_.calls().size();
  for (const auto &call : std::vector<std::function<bool()>>{
           [] { return SCNetworkConnectionGetStatus(nullptr) != kSCNetworkConnectionInvalid; },
           [] { return !SCNetworkConnectionCopyExtendedStatus(nullptr).isNull(); },
           [] { return SCNetworkConnectionScheduleWithRunLoop(nullptr, CFRunLoopGetCurrent(), kCFRunLoopDefaultMode); },
           [this] { return SCNetworkConnectionScheduleWithRunLoop(connection_, nullptr, kCFRunLoopDefaultMode); },
           [] { return SCNetworkConnectionStart(nullptr, {}, false); },
           [] { return SCNetworkConnectionStop(nullptr, true); }}) {
    setSCError(0);
    EXPECT_FALSE(call());
    EXPECT_EQ(SCError(), kSCStatusInvalidArgument);
  }
  EXPECT_EQ(platform_.calls().size(), before);
}

TEST_F(MacNetworkConnectionTest, AnExtendedStatusThatThereIsNotIsNull) {
  frameworks::setSystemsError(2002);
  EXPECT_TRUE(SCNetworkConnectionCopyExtendedStatus(connection_).isNull());
  EXPECT_EQ(SCError(), 2002) << "the system's reason is ours";
  platform_.extendedStatusBeforeStart = extendedStatus(0, 5);
  EXPECT_EQ(SCNetworkConnectionCopyExtendedStatus(create()), extendedStatus(0, 5));
}

}  // namespace
}  // namespace platform
