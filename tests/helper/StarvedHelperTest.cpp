// The real helper without descriptors to spare: whatever it cannot do then, it ends in order, never by an exception
// that nobody catches, its stores stay whole, and the next helper leaves nothing of its link.
//
// In a network and with system folders of this program's own: needs root.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "foundation/PropertyList.h"
#include "helper/journal/Journal.h"
#include "helper/store/KeychainItem.h"
#include "tests/support/StartedHelper.h"
#include "tests/support/TemporaryFolder.h"
#include "wire/StatusCodes.h"

namespace helper {
namespace {

namespace fs = std::filesystem;
using testing::StartedHelper;
using vpnctl::Secret;
using vpnctl::Value;

constexpr char kService[] = "0123ABCD-4567-4EF0-89AB-0123456789AB";
constexpr char kPPPD[] = "/usr/sbin/pppd";
constexpr char kServer[] = "10.77.0.2";          // on the wire of the network below, where nobody is
constexpr char kSlowServer[] = "server.test";    // a name that nobody there looks up
constexpr std::uint64_t kDeadline = 30'000'000;  // microseconds; only a failure takes them

bool mounted(const char *source, const char *target, const char *type, unsigned long flags) {
  return ::mount(source, target, type, flags, nullptr) == 0;
}

// Empty system folders for the helper to write in, and what programs need of /etc.
bool makeFolders() {
  if (!mounted("none", "/", nullptr, MS_REC | MS_PRIVATE) || !mounted("none", "/mnt", "tmpfs", 0)) return false;
  std::error_code error;
  for (const char *name : {"ld.so.cache", "passwd", "group", "nsswitch.conf", "hosts", "localtime", "protocols"})
    fs::copy(fs::path("/etc") / name, fs::path("/mnt") / name, fs::copy_options::none, error);
  std::ofstream("/mnt/resolv.conf") << "nameserver " << kServer << "\n";
  if (!mounted("/mnt", "/etc", nullptr, MS_BIND) || ::umount("/mnt") != 0) return false;
  for (const char *folder : {"/run", "/var/log", "/var/lib"})
    if (!mounted("none", folder, "tmpfs", 0)) return false;
  return mounted(WAITING_PPPD, kPPPD, nullptr, MS_BIND);
}

bool makeNetwork() {
  return std::system(
             "ip link set lo up && ip link add vpn0 type veth peer name vpn1 && "
             "ip address add 10.77.0.1/24 dev vpn0 && ip link set vpn0 up && ip link set vpn1 up") == 0;
}

std::string routes() { return support::contentsOf("/proc/thread-self/net/route").value_or("none"); }

bool areSame(const fs::path &one, const fs::path &other) {
  struct stat first = {};
  struct stat second = {};
  return ::stat(one.c_str(), &first) == 0 && ::stat(other.c_str(), &second) == 0 && first.st_ino == second.st_ino &&
         first.st_dev == second.st_dev;
}

// The processes of our pppd, in our namespace.
std::vector<int> pppds() {
  std::vector<int> found;
  for (const auto &entry : fs::directory_iterator("/proc")) {
    const int pid = std::atoi(entry.path().filename().c_str());
    if (pid <= 0 || !areSame(entry.path() / "exe", kPPPD) || !areSame(entry.path() / "ns/mnt", "/proc/self/ns/mnt"))
      continue;
    found.push_back(pid);
  }
  return found;
}

// How many of them have not ended after PATIENCE.
int pppdsLeft(std::chrono::milliseconds patience) {
  int left = 0;
  for (const int pid : pppds()) {
    const vpnctl::FileDescriptor process(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
    pollfd ended = {process.get(), POLLIN, 0};
    if (process && ::poll(&ended, 1, static_cast<int>(patience.count())) == 0) ++left;
  }
  return left;
}

// Hears what becomes of the link.
class Listener : public platform::LinkObserver {
 public:
  explicit Listener(platform::HelperConnection &connection) : connection_(connection) {
    EXPECT_GE(sd_event_new(linux::Out(event_)), 0);
    EXPECT_TRUE(connection_.attach(event_.get()));
    connection_.addObserver(this);
  }
  Listener(const Listener &) = delete;
  Listener &operator=(const Listener &) = delete;
  ~Listener() override { connection_.removeObserver(this); }

  const std::string &serviceID() const override { return service_; }
  void linkChanged(const platform::LinkSnapshot &snapshot) override {
    ppp_ = snapshot.extendedStatus["PPP"];
    over_ = snapshot.status == 0;
  }
  void helperIsGone() override { over_ = true; }

  // Until the link has that phase, or is over, or its helper is.
  ::testing::AssertionResult waitForPhase(int phase) {
    while (!over_ && ppp_["Status"] != Value(phase))
      if (sd_event_run(event_.get(), kDeadline) <= 0)
        return ::testing::AssertionFailure() << "phase " << ppp_["Status"].intValue();
    return ::testing::AssertionSuccess();
  }
  ::testing::AssertionResult waitForEnd() { return waitForPhase(-1); }
  // The last that was told of the link; null before.
  const Value &ppp() const { return ppp_; }

 private:
  platform::HelperConnection &connection_;
  const std::string service_ = kService;
  linux::EventLoop event_;
  Value ppp_;
  bool over_ = false;
};

class StarvedHelperTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    const bool alone = ::geteuid() == 0 && ::access(kPPPD, F_OK) == 0 && ::unshare(CLONE_NEWNS | CLONE_NEWNET) == 0;
    ready_ = alone && makeFolders() && makeNetwork();
  }

  void SetUp() override {
    if (!ready_) GTEST_SKIP() << "needs root, pppd's place, and namespaces of its own";
    StartedHelper helper(HELPER_PROGRAM);
    ASSERT_TRUE(helper.isReady());
    store(helper);
    helper.leave();
    ASSERT_TRUE(helper.wait().value().isInOrder());
    routesBefore_ = routes();
  }

  // With one service, towards server_.
  std::string preferences() const {
    const Value service =
        Value::Dictionary{{"Interface", Value::Dictionary{{"Type", "PPP"}, {"SubType", "PPTP"}}},
                          {"PPP", Value::Dictionary{{"CommRemoteAddress", server_}, {"AuthName", "user"}}}};
    return *vpnctl::xmlPropertyList(Value::Dictionary{{"NetworkServices", Value::Dictionary{{kService, service}}}});
  }

  // Writes to both stores, as a tool does. What comes of it is not of interest here.
  void store(StartedHelper &helper) {
    helper.connection().commitPreferences(preferences(), "");
    const auto found = helper.connection().findKeychainItems({{kServiceAttribute, "S"}});
    if (found && !found->items.empty()) helper.connection().deleteKeychainItem(found->items.front());
    helper.connection().addKeychainItem({{kServiceAttribute, "S"}}, Secret(std::string_view("secret")), "", {});
  }

  // HELPER_PROGRAM with at most COUNT descriptors from its first moment on, and without the right to take more.
  std::string programWith(unsigned count) {
    return programBehind("helper-" + std::to_string(count), "setpriv --bounding-set -sys_resource sh -c 'ulimit -n " +
                                                                std::to_string(count) + "; exec " HELPER_PROGRAM "'");
  }

  // A program called NAME that becomes HELPER_PROGRAM by COMMAND.
  std::string programBehind(const std::string &name, const std::string &command) {
    std::string path = folder_.path(name);
    support::writeFile(path, "#!/bin/sh\nexec " + command + "\n");
    fs::permissions(path, fs::perms::owner_all);
    return path;
  }

  static void limit(const StartedHelper &helper, unsigned count) {
    const rlimit few = {count, count};
    ASSERT_EQ(::prlimit(helper.pid(), RLIMIT_NOFILE, &few, nullptr), 0);
  }

  static unsigned descriptorsOf(const StartedHelper &helper) {
    unsigned count = 0;
    for ([[maybe_unused]] const auto &entry : fs::directory_iterator("/proc/" + std::to_string(helper.pid()) + "/fd"))
      ++count;
    return count;
  }

  // Everything that a tool asks for, as far as it gets an answer.
  void use(StartedHelper &helper) {
    if (!helper.isReady()) return;
    store(helper);
    if (helper.connection().startLink(kService, {}, false) != wire::kSCStatusOK) return;
    Listener listener(helper.connection());
    EXPECT_TRUE(listener.waitForEnd());
    ppp_ = listener.ppp();
  }

  // HELPER's tool goes.
  static void expectEnd(StartedHelper &helper) {
    helper.leave();
    const auto end = helper.wait();
    ASSERT_TRUE(end) << "it does not end";
    EXPECT_TRUE(end->exited) << "by signal " << end->code;
  }

  void expectNextToClean() {
    StartedHelper next(HELPER_PROGRAM);
    ASSERT_TRUE(next.isReady());
    const auto preferences = next.connection().readPreferences();
    ASSERT_TRUE(preferences);
    EXPECT_EQ(preferences->error, wire::kSCStatusOK);
    EXPECT_TRUE(vpnctl::propertyListFromData(preferences->propertyList, "preferences"));
    const auto items = next.connection().findKeychainItems({});
    ASSERT_TRUE(items);
    EXPECT_EQ(items->status, wire::errSecSuccess);
    next.leave();
    const auto end = next.wait();
    ASSERT_TRUE(end);
    EXPECT_TRUE(end->isInOrder());
    EXPECT_FALSE(fs::exists(Journal::kBase));
    EXPECT_EQ(pppdsLeft(std::chrono::seconds(5)), 0);
    EXPECT_EQ(routes(), routesBefore_);
  }

  // The last link had all that it needed, so those before have missed it at every step.
  void expectNothingMissing() const {
    const std::string log = support::contentsOf("/var/log/ppp.log").value_or("");
    const std::string last = log.substr(log.rfind('\n', log.size() - 2) + 1);
    EXPECT_FALSE(last.empty());
    EXPECT_EQ(last.find("Too many open files"), std::string::npos) << last;
    // What was missing then is the server or, on many a machine for tests, PPTP; the tool has heard which.
    const bool hasPPTP = last.find("this kernel has no PPTP") == std::string::npos;
    EXPECT_EQ(ppp_["DeviceLastCause"], Value(hasPPTP ? 1 : 5)) << last;
  }

  const char *server_ = kServer;
  std::string routesBefore_;
  Value ppp_;  // of the last link, at its end

 private:
  static bool ready_;
  support::TemporaryFolder folder_;
};

bool StarvedHelperTest::ready_ = false;

TEST_F(StarvedHelperTest, FromItsFirstMoment) {
  for (unsigned count = 3; count < 26; ++count) {
    SCOPED_TRACE(count);
    {
      StartedHelper helper(programWith(count));
      use(helper);
      expectEnd(helper);
    }
    expectNextToClean();
    if (HasFailure()) return;
  }
  expectNothingMissing();
}

TEST_F(StarvedHelperTest, FromItsFirstAnswer) {
  for (unsigned more = 0; more < 16; ++more) {
    SCOPED_TRACE(more);
    {
      StartedHelper helper(HELPER_PROGRAM);
      ASSERT_TRUE(helper.isReady());
      limit(helper, descriptorsOf(helper) + more);
      use(helper);
      expectEnd(helper);
    }
    expectNextToClean();
    if (HasFailure()) return;
  }
  expectNothingMissing();
}

TEST_F(StarvedHelperTest, WhileItsLinkComesUp) {
  server_ = kSlowServer;
  for (unsigned more = 0; more < 8; ++more) {
    SCOPED_TRACE(more);
    {
      StartedHelper helper(HELPER_PROGRAM);
      ASSERT_TRUE(helper.isReady());
      store(helper);
      ASSERT_EQ(helper.connection().startLink(kService, {}, false), wire::kSCStatusOK);
      {
        Listener listener(helper.connection());
        EXPECT_TRUE(listener.waitForPhase(2));
      }
      EXPECT_EQ(pppdsLeft(std::chrono::milliseconds(0)), 1);
      limit(helper, descriptorsOf(helper) + more);
      expectEnd(helper);
    }
    expectNextToClean();
    if (HasFailure()) return;
  }
}

// With room for 50 bytes in a file, as the least important process there is: what a caller may leave to its children.
TEST_F(StarvedHelperTest, NotByItsStartersLimits) {
  server_ = kSlowServer;
  // Who may not raise a limit again, as in many a container, is only left what can be.
  const std::string hard = ::prctl(PR_CAPBSET_READ, CAP_SYS_RESOURCE) == 1 ? "" : ":";
  StartedHelper helper(programBehind("hostile", "nice -n 19 prlimit --fsize=50" + hard + " --cpu=60" + hard +
                                                    " choom -n 1000 -- taskset 1 " HELPER_PROGRAM));
  ASSERT_TRUE(helper.isReady());
  const auto committed = helper.connection().commitPreferences(preferences(), "");
  ASSERT_TRUE(committed) << "it has died";
  EXPECT_EQ(committed->error, wire::kSCStatusOK);
  const auto added =
      helper.connection().addKeychainItem({{kServiceAttribute, "T"}}, Secret(std::string_view("t")), "", {});
  ASSERT_TRUE(added) << "it has died";
  EXPECT_EQ(added->status, wire::errSecSuccess);
  ASSERT_EQ(helper.connection().startLink(kService, {}, false), wire::kSCStatusOK);
  EXPECT_TRUE(Listener(helper.connection()).waitForPhase(2));
  const auto all = pppds();
  ASSERT_EQ(all.size(), 1U);
  for (const int process : {helper.pid(), all.front()}) {
    const std::string proc = "/proc/" + std::to_string(process) + "/";
    const auto limits = support::contentsOf(proc + "limits").value_or("");
    for (const char *limit : {"Max file size             unlimited            unlimited ",
                              "Max cpu time              unlimited            unlimited "})
      EXPECT_NE(limits.find(limit), std::string::npos) << limit << "\n" << limits;
    EXPECT_EQ(::getpriority(PRIO_PROCESS, static_cast<id_t>(process)), 0);
    EXPECT_EQ(support::contentsOf(proc + "oom_score_adj"), "0\n");
  }
  EXPECT_EQ(helper.connection().deleteKeychainItem(added->item), wire::errSecSuccess);
  expectEnd(helper);
  expectNextToClean();
}

// A helper that may not raise its limits, in a container perhaps: what does not fit is an error, and kills nobody.
TEST_F(StarvedHelperTest, WithoutRoomInItsFiles) {
  StartedHelper helper(
      programBehind("full", "setpriv --bounding-set -sys_resource prlimit --fsize=50 " HELPER_PROGRAM));
  ASSERT_TRUE(helper.isReady());
  const auto committed = helper.connection().commitPreferences(preferences(), "");
  ASSERT_TRUE(committed) << "it has died";
  EXPECT_EQ(committed->error, wire::kSCStatusFailed);
  expectEnd(helper);
  expectNextToClean();
}

}  // namespace
}  // namespace helper
