#include "helper/common/UDPPortHolder.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <system_error>

#include "foundation/FileDescriptor.h"

namespace helper {

namespace fs = std::filesystem;

namespace {

// Adds the inodes of the sockets that the kernel's TABLE (proc(5), net/udp) shows on PORT.
void collectSockets(const std::string &table, std::uint16_t port, std::set<std::string> &links) {
  std::ifstream file(table);
  std::string line;
  std::getline(file, line);  // headings
  while (std::getline(file, line)) {
    std::istringstream words(line);
    std::string number;
    std::string local;
    std::string inode;
    words >> number >> local;
    for (int skipped = 2; skipped <= 9; ++skipped) words >> inode;
    const std::size_t colon = local.rfind(':');
    if (!words || colon == std::string::npos) continue;
    unsigned value = 0;
    const char *begin = local.data() + colon + 1;
    if (std::from_chars(begin, local.data() + local.size(), value, 16).ec == std::errc() && value == port)
      links.insert("socket:[" + inode + "]");
  }
}

std::set<std::string> socketsOn(std::uint16_t port, const std::string &proc) {
  std::set<std::string> links;
  for (const char *table : {"/net/udp", "/net/udp6"}) collectSockets(proc + table, port, links);
  return links;
}

bool holdsOneOf(const fs::path &process, const std::set<std::string> &links) {
  std::error_code ignored;  // processes come and go while we look
  for (fs::directory_iterator fd(process / "fd", ignored), end; fd != end; fd.increment(ignored)) {
    const fs::path target = fs::read_symlink(fd->path(), ignored);
    if (links.contains(target.string())) return true;
  }
  return false;
}

}  // namespace

std::optional<std::string> udpPortHolder(std::uint16_t port, const std::string &proc) {
  const auto links = socketsOn(port, proc);
  if (links.empty()) return std::nullopt;
  std::error_code ignored;
  for (fs::directory_iterator process(proc, ignored), end; process != end; process.increment(ignored)) {
    const std::string pid = process->path().filename().string();
    if (!std::all_of(pid.begin(), pid.end(), [](unsigned char c) { return std::isdigit(c) != 0; })) continue;
    if (!holdsOneOf(process->path(), links)) continue;
    std::string name;
    std::getline(std::ifstream(process->path() / "comm"), name);
    return (name.empty() ? "a process" : name) + " (process " + pid + ")";
  }
  return std::nullopt;
}

bool isUDPPortShown(std::uint16_t port, const std::string &proc) { return !socketsOn(port, proc).empty(); }

bool isUDPPortFree(std::uint16_t port) {
  const vpnctl::FileDescriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  return ::bind(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 || errno != EADDRINUSE;
}

}  // namespace helper
