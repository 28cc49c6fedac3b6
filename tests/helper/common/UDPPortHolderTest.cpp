#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "foundation/FileDescriptor.h"
#include "helper/common/UDPPortHolder.h"
#include "tests/support/TemporaryFolder.h"

using namespace helper;

namespace {

TEST(UDPPortHolder, NamesUs) {
  const vpnctl::FileDescriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  ASSERT_EQ(::bind(socket.get(), reinterpret_cast<sockaddr *>(&address), size), 0);
  ASSERT_EQ(::getsockname(socket.get(), reinterpret_cast<sockaddr *>(&address), &size), 0);
  std::string name;
  std::getline(std::ifstream("/proc/self/comm"), name);
  EXPECT_EQ(udpPortHolder(ntohs(address.sin_port)), name + " (process " + std::to_string(::getpid()) + ")");
}

// As proc(5) shows them, also on the newer protocol; whatever else lies there does not disturb.
TEST(UDPPortHolder, ReadsBothTables) {
  const support::TemporaryFolder folder;
  const std::string proc = folder.path();
  const std::string heading = "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt uid\n";
  for (const char *name : {"/net", "/net/nothing", "/acpi", "/77", "/77/fd", "/78", "/78/fd"})
    ASSERT_TRUE(std::filesystem::create_directory(proc + name));
  std::ofstream(proc + "/net/udp") << heading
                                   << "  10: 00000000:06A5 00000000:0000 07 00000000:00000000 00:00000000 00000000 "
                                      "    0        0 4242 2 0000000000000000 0\nrubbish\n";
  std::ofstream(proc + "/net/udp6")
      << heading
      << "  11: 00000000000000000000000000000000:01F4 00000000000000000000000000000000:0000 07 00000000:00000000 "
         "00:00000000 00000000     0        0 4343 2 0000000000000000 0\n";
  std::filesystem::create_symlink("/dev/null", proc + "/77/fd/0");
  std::filesystem::create_symlink("socket:[4242]", proc + "/77/fd/3");
  std::filesystem::create_symlink("socket:[4343]", proc + "/78/fd/5");
  std::ofstream(proc + "/77/comm") << "xl2tpd\n";
  EXPECT_EQ(udpPortHolder(1701, proc), "xl2tpd (process 77)");
  EXPECT_EQ(udpPortHolder(500, proc), "a process (process 78)");
  EXPECT_EQ(udpPortHolder(4500, proc), std::nullopt);
  EXPECT_EQ(udpPortHolder(1701, proc + "/none"), std::nullopt);
  std::filesystem::remove_all(proc + "/78");
  EXPECT_EQ(udpPortHolder(500, proc), std::nullopt) << "whose it is cannot be seen";
  EXPECT_TRUE(isUDPPortShown(500, proc));
  EXPECT_TRUE(isUDPPortShown(1701, proc));
  EXPECT_FALSE(isUDPPortShown(4500, proc));
}

}  // namespace
