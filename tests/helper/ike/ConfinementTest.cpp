#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/udp.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <ctime>
#include <functional>
#include <string>

#include "foundation/FileDescriptor.h"
#include "helper/ike/Confinement.h"
#include "tests/support/TemporaryFolder.h"

namespace {

constexpr int kNotConfined = 90;

// How a confined process ends that does DEED.
int endAfter(const std::function<void()> &deed) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    if (!helper::confine()) ::_exit(kNotConfined);
    deed();
    ::_exit(0);
  }
  int status = 0;
  EXPECT_EQ(::waitpid(pid, &status, 0), pid);
  return status;
}

class ConfinementTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can give its rights away";
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizers' bookkeeping takes more memory than a confined process may have";
#endif
  }
};

struct Deed {
  const char *name;
  void (*perform)();
};

class ForbiddenDeed : public ConfinementTest, public ::testing::WithParamInterface<Deed> {};

TEST_P(ForbiddenDeed, EndsTheProcess) {
  const int status = endAfter(GetParam().perform);
  ASSERT_TRUE(WIFSIGNALED(status)) << status;
  EXPECT_EQ(WTERMSIG(status), SIGSYS);
}

INSTANTIATE_TEST_SUITE_P(
    Confinement, ForbiddenDeed,
    ::testing::Values(Deed{"openingAFile", [] { ::open("/", O_RDONLY | O_CLOEXEC); }},
                      Deed{"makingAFile", [] { ::creat("x", 0600); }},
                      Deed{"makingASocket", [] { ::socket(AF_INET, SOCK_DGRAM, 0); }},
                      Deed{"connecting", [] { ::connect(0, nullptr, 0); }},
                      Deed{"listening", [] { ::bind(0, nullptr, 0); }}, Deed{"forking", [] { ::fork(); }},
                      Deed{"running", [] { ::syscall(SYS_execve, "/bin/true", nullptr, nullptr); }},
                      Deed{"killing", [] { ::kill(1, 0); }}, Deed{"leaving", [] { ::chdir("/"); }},
                      Deed{"gettingRightsBack", [] { ::setuid(0); }},
                      Deed{"routing",
                           [] {
                             const int on = 1;
                             ::setsockopt(0, SOL_SOCKET, SO_MARK, &on, sizeof on);
                           }},
                      Deed{"policing", [] { ::setsockopt(0, IPPROTO_IP, 17, nullptr, 0); }},
                      Deed{"makingCode",
                           [] { ::mmap(nullptr, 4096, PROT_READ | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0); }},
                      Deed{"turningDataIntoCode",
                           [] {
                             void *page =
                                 ::mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
                             ::mprotect(page, 4096, PROT_READ | PROT_EXEC);
                           }}),
    [](const auto &test) { return test.param.name; });

TEST_F(ConfinementTest, LeavesWhatIKENeeds) {
  const vpnctl::FileDescriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const int status = endAfter([&] {
    std::array<char, 16> bytes{};
    timespec time{};
    const int kind = UDP_ENCAP_ESPINUDP;
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    to.sin_port = htons(9);
    pollfd wait{socket.get(), POLLIN, 0};
    const timespec none{};
    void *page = ::mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    const bool works = ::getrandom(bytes.data(), bytes.size(), 0) == 16 &&
                       ::clock_gettime(CLOCK_BOOTTIME, &time) == 0 &&
                       ::setsockopt(socket.get(), IPPROTO_UDP, UDP_ENCAP, &kind, sizeof kind) == 0 &&
                       ::sendto(socket.get(), "x", 1, 0, reinterpret_cast<const sockaddr *>(&to), sizeof to) == 1 &&
                       ::ppoll(&wait, 1, &none, nullptr) >= 0 && page != MAP_FAILED && ::munmap(page, 4096) == 0;
    ::_exit(works ? 0 : 1);
  });
  EXPECT_TRUE(WIFEXITED(status)) << status;
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(ConfinementTest, LeavesNoRight) {
  std::array<int, 2> told{};
  std::array<int, 2> held{};
  ASSERT_EQ(::pipe2(told.data(), O_CLOEXEC), 0);
  ASSERT_EQ(::pipe2(held.data(), O_CLOEXEC), 0);
  const vpnctl::FileDescriptor toldEnd(told[0]);
  vpnctl::FileDescriptor toldStart(told[1]);
  const vpnctl::FileDescriptor heldEnd(held[0]);
  vpnctl::FileDescriptor heldStart(held[1]);
  const pid_t pid = ::fork();
  if (pid == 0) {
    heldStart.reset();
    if (!helper::confine()) ::_exit(kNotConfined);
    toldStart.reset();
    char byte = 0;
    ::_exit(::read(heldEnd.get(), &byte, 1) == 0 ? 0 : 1);
  }
  toldStart.reset();
  char byte = 0;
  EXPECT_EQ(::read(toldEnd.get(), &byte, 1), 0);
  const std::string status = support::contentsOf("/proc/" + std::to_string(pid) + "/status").value_or("");
  const auto has = [&status](const std::string &line) { return status.find("\n" + line + "\n") != std::string::npos; };
  EXPECT_TRUE(has("Uid:\t65534\t65534\t65534\t65534")) << status;
  EXPECT_TRUE(has("Gid:\t65534\t65534\t65534\t65534"));
  EXPECT_TRUE(has("Groups:\t ")) << status;
  for (const char *set : {"CapInh", "CapPrm", "CapEff", "CapBnd", "CapAmb"})
    EXPECT_TRUE(has(std::string(set) + ":\t0000000000000000")) << set;
  EXPECT_TRUE(has("NoNewPrivs:\t1"));
  EXPECT_TRUE(has("Seccomp:\t2"));
  heldStart.reset();
  int end = 0;
  EXPECT_EQ(::waitpid(pid, &end, 0), pid);
  EXPECT_TRUE(WIFEXITED(end));
  EXPECT_EQ(WEXITSTATUS(end), 0);
}

}  // namespace
