#include "helper/ike/CharonLeftovers.h"

#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <set>
#include <vector>

#include "helper/common/UDPPortHolder.h"
#include "helper/ike/RoutingRule.h"
#include "helper/ike/ViciConnection.h"
#include "linux/FolderPaths.h"

namespace helper {

namespace {

// What charons keep where they have their control sockets.
std::vector<std::filesystem::path> charonFiles(const std::vector<std::string> &controlSockets) {
  namespace fs = std::filesystem;
  std::set<fs::path> folders;
  for (const fs::path path : controlSockets) folders.insert(path.parent_path());
  std::vector<fs::path> files;
  std::error_code ignored;
  for (const auto &folder : folders)
    for (const fs::path path : linux::pathsIn(folder, ignored))
      if (path.filename().string().starts_with("charon.")) files.push_back(path);
  return files;
}

pid_t writtenNumber(const std::filesystem::path &file) {
  pid_t written = -1;
  return file.extension() == ".pid" && std::ifstream(file) >> written ? written : -1;
}

// Whether another charon, an administrator's perhaps, runs or starts by now. It has the same rule, and files of the
// same names. What cannot be seen counts as one: a rule too many does no harm, one too few cuts off somebody's tunnels.
bool mayAnotherRun(const CharonProcess::Places &places, const StartedDaemon &daemon) {
  for (const auto &file : charonFiles(places.controlSockets))
    if (const pid_t written = writtenNumber(file);
        written > 0 && written != daemon.pid && (::kill(written, 0) == 0 || errno != ESRCH))
      return true;
  for (const std::string &path : places.controlSockets) {
    const auto answer = ViciConnection::connect(path);
    if (answer || (answer.error().code != ECONNREFUSED && answer.error().code != ENOENT)) return true;
  }
  return std::any_of(places.ports.begin(), places.ports.end(), [](std::uint16_t port) {
    return !isUDPPortFree(port) && udpPortHolder(port).value_or("charon").starts_with("charon");
  });
}

}  // namespace

void removeLeftovers(const CharonProcess::Places &places, const StartedDaemon &daemon) {
  if (mayAnotherRun(places, daemon)) return;
  if (!daemon.ruleWasThere) removeCharonRule();
  std::error_code ignored;
  for (const auto &file : charonFiles(places.controlSockets)) {
    bool left = writtenNumber(file) == daemon.pid;
    if (std::filesystem::is_socket(file, ignored)) {
      const auto answer = ViciConnection::connect(file);
      left = !answer && answer.error().code == ECONNREFUSED;
    }
    if (left) std::filesystem::remove(file, ignored);
  }
}

}  // namespace helper
