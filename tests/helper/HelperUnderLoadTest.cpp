// Helpers as processes under what one tool, or two, can do to them: many calls, answers that nobody reads, and changes
// of both stores from two sides at once.

#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "foundation/PropertyList.h"
#include "helper/HelperService.h"
#include "linux/SystemdOwners.h"
#include "tests/support/StartedHelper.h"
#include "tests/support/TemporaryFolder.h"
#include "wire/HelperInterface.h"
#include "wire/StatusCodes.h"

namespace helper {
namespace {

using testing::StartedHelper;
using vpnctl::Secret;
using vpnctl::Value;

constexpr int kTimes = 50;
constexpr long kGrowth = 1024;  // KiB; what malloc keeps for itself

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kFreesMemory = false;  // a sanitizer keeps it for a while
#else
constexpr bool kFreesMemory = true;
#endif

class HelperUnderLoadTest : public ::testing::Test {
 protected:
  HelperUnderLoadTest() { std::filesystem::copy_file(SCRIPTED_HELPER, program); }

  std::string log() const { return support::contentsOf(folder.path("ppp.log")).value_or(""); }

  support::TemporaryFolder folder;
  const std::string program = folder.path("vpnctl-helper");
};

// True when HELPER has all of its own entries in, one commit for each, whatever another commits meanwhile.
bool commitMany(StartedHelper &helper, const std::string &prefix) {
  for (int i = 0; i < kTimes;) {
    const auto read = helper.connection().readPreferences();
    if (!read || read->error != wire::kSCStatusOK) return false;
    Value root{Value::Dictionary()};
    if (!read->propertyList.empty()) root = vpnctl::propertyListFromData(read->propertyList, "read").value();
    Value services = root["NetworkServices"].isNull() ? Value(Value::Dictionary()) : root["NetworkServices"];
    services.set(prefix + std::to_string(i), Value::Dictionary());
    root.set("NetworkServices", std::move(services));
    const auto written = helper.connection().commitPreferences(vpnctl::xmlPropertyList(root).value(), read->signature);
    if (!written || (written->error != wire::kSCStatusOK && written->error != wire::kSCStatusStale)) return false;
    if (written->error == wire::kSCStatusOK) ++i;  // or somebody was faster, and there is more to read
  }
  return true;
}

// True when HELPER has added all of its own items, and removed every second one again.
bool changeKeychain(StartedHelper &helper, const std::string &prefix) {
  for (int i = 0; i < kTimes; ++i) {
    const auto added = helper.connection().addKeychainItem({{kServiceAttribute, prefix + std::to_string(i)}},
                                                           Secret(std::string_view("secret")), "access", {});
    if (!added || added->status != wire::errSecSuccess) {
      ADD_FAILURE() << prefix << i << " is not added: " << (added ? std::to_string(added->status) : "no answer");
      return false;
    }
    if (i % 2 == 0) continue;
    if (const auto status = helper.connection().deleteKeychainItem(added->item); status != wire::errSecSuccess) {
      ADD_FAILURE() << prefix << i << " is not removed: " << (status ? std::to_string(*status) : "no answer");
      return false;
    }
  }
  return true;
}

TEST_F(HelperUnderLoadTest, TwoThatCommitPreferencesLoseNothing) {
  StartedHelper first(program);
  StartedHelper second(program);
  ASSERT_TRUE(first.isReady() && second.isReady());
  bool other = false;
  std::thread thread([&] { other = commitMany(second, "B"); });
  EXPECT_TRUE(commitMany(first, "A"));
  thread.join();
  EXPECT_TRUE(other);
  const auto read = first.connection().readPreferences();
  ASSERT_TRUE(read);
  const Value root = vpnctl::propertyListFromData(read->propertyList, "read").value();
  EXPECT_EQ(root["NetworkServices"].dictionary().size(), 2U * kTimes);
  for (int i = 0; i < kTimes; ++i) {
    EXPECT_NE(root["NetworkServices"].find("A" + std::to_string(i)), nullptr);
    EXPECT_NE(root["NetworkServices"].find("B" + std::to_string(i)), nullptr);
  }
}

TEST_F(HelperUnderLoadTest, TwoThatChangeTheKeychainLoseNothing) {
  StartedHelper first(program);
  StartedHelper second(program);
  ASSERT_TRUE(first.isReady() && second.isReady());
  bool other = false;
  std::thread thread([&] { other = changeKeychain(second, "B"); });
  EXPECT_TRUE(changeKeychain(first, "A"));
  thread.join();
  EXPECT_TRUE(other);
  for (StartedHelper *helper : {&first, &second}) {
    const auto all = helper->connection().findKeychainItems({});
    ASSERT_TRUE(all);
    EXPECT_EQ(std::set(all->items.begin(), all->items.end()).size(), 1U * kTimes);
    for (int i = 0; i < kTimes; ++i) {
      for (const char *prefix : {"A", "B"}) {
        const auto found = helper->connection().findKeychainItems({{kServiceAttribute, prefix + std::to_string(i)}});
        ASSERT_TRUE(found);
        EXPECT_EQ(found->items.size(), i % 2 == 0 ? 1U : 0U) << prefix << i;
      }
    }
  }
}

// Two helpers of one machine that start at the same moment make one key, not two.
TEST_F(HelperUnderLoadTest, TwoThatMakeTheKeychainMakeOne) {
  for (int time = 0; time < 10; ++time) {
    std::filesystem::remove_all(folder.path("keychain"));
    StartedHelper first(program);
    StartedHelper second(program);
    ASSERT_TRUE(first.isReady() && second.isReady());
    std::optional<wire::AddKeychainItemReply> other;
    std::thread thread([&] {
      other = second.connection().addKeychainItem({{kServiceAttribute, "B"}}, Secret(std::string_view("b")), "", {});
    });
    const auto own =
        first.connection().addKeychainItem({{kServiceAttribute, "A"}}, Secret(std::string_view("a")), "", {});
    thread.join();
    ASSERT_TRUE(own && other);
    EXPECT_EQ(own->status, wire::errSecSuccess);
    EXPECT_EQ(other->status, wire::errSecSuccess);
    EXPECT_EQ(first.connection().findKeychainItems({})->items.size(), 2U);
  }
}

TEST_F(HelperUnderLoadTest, TenThousandCallsDoNotMakeItGrow) {
  StartedHelper helper(program);
  ASSERT_TRUE(helper.isReady());
  const Value root = Value::Dictionary{{"Filler", std::string(1000, 'x')}};
  ASSERT_EQ(helper.connection().commitPreferences(*vpnctl::xmlPropertyList(root), "")->error, wire::kSCStatusOK);
  const auto calls = [&](int count) {
    for (int i = 0; i < count; i += 5) {
      ASSERT_TRUE(helper.connection().readPreferences());
      ASSERT_TRUE(helper.connection().findKeychainItems({}));
      ASSERT_EQ(helper.connection().applyPreferences(), wire::kSCStatusOK);
      ASSERT_EQ(helper.connection().startLink("none", {}, false), wire::kSCStatusConnectionNoService);
      ASSERT_FALSE(helper.connection().startLink("none", "garbage", false));
    }
  };
  calls(1000);
  const long before = helper.memory("VmRSS");
  calls(10000);
  const long after = helper.memory("VmRSS");
  RecordProperty("KiBBefore", std::to_string(before));
  RecordProperty("KiBAfter", std::to_string(after));
  EXPECT_GT(before, 0);
  if (kFreesMemory) EXPECT_LT(after, before + kGrowth);
  helper.leave();
  EXPECT_TRUE(helper.wait().value_or(StartedHelper::End()).isInOrder());
}

TEST_F(HelperUnderLoadTest, APeerThatNeverReadsIsLeftBeforeItCostsMuch) {
  constexpr long kFile = 4000;  // KiB, next to the largest there may be
  constexpr long kMost = kFile * (HelperService::kMaximumUnread + 1) + (32 << 10);
  {
    StartedHelper helper(program);
    ASSERT_TRUE(helper.isReady());
    const Value root = Value::Dictionary{{"Filler", std::string(std::size_t{kFile} << 10, 'x')}};
    ASSERT_EQ(helper.connection().commitPreferences(*vpnctl::xmlPropertyList(root), "")->error, wire::kSCStatusOK);
  }
  StartedHelper helper(program, StartedHelper::Talk::none);
  linux::Bus bus;
  ASSERT_GE(sd_bus_new(linux::Out(bus)), 0);
  const int socket = helper.takeSocket().release();
  ASSERT_GE(sd_bus_set_fd(bus.get(), socket, socket), 0);
  ASSERT_GE(sd_bus_start(bus.get()), 0);
  // A client that sends reads what it must for the greeting, and from then on nothing.
  for (std::uint64_t i = 0; i < 10 * HelperService::kMaximumUnread; ++i) {
    linux::BusMessage message;
    ASSERT_GE(sd_bus_message_new_method_call(bus.get(), linux::Out(message), nullptr, wire::kObjectPath,
                                             wire::kInterface, wire::kReadPreferences),
              0);
    std::uint64_t cookie = 0;  // without one, no answer would be wanted
    sd_bus_send(bus.get(), message.get(), &cookie);
  }
  sd_bus_flush(bus.get());
  const auto end = helper.wait();
  bus.reset();
  ASSERT_TRUE(end);
  EXPECT_TRUE(end->isInOrder()) << end->code;
  EXPECT_NE(log().find("does not read the answers"), std::string::npos);
  RecordProperty("PeakKiB", std::to_string(end->peak));
  if (kFreesMemory) EXPECT_LT(end->peak, kMost);
}

}  // namespace
}  // namespace helper
