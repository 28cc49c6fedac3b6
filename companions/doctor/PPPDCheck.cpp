#include "companions/doctor/PPPDCheck.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include "companions/doctor/FindingList.h"
#include "foundation/FileDescriptor.h"
#include "linux/ChildProcess.h"

namespace companions {

namespace fs = std::filesystem;
using vpnctl::Result;

namespace {

constexpr std::chrono::milliseconds kPatience{5000};

// What PPPD says of itself, on whichever stream: that has changed from version to version. It fits into a pipe.
Result<std::string> outputOf(const std::string &pppd) {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) < 0) return vpnctl::errnoError(errno, "make a pipe");
  const vpnctl::FileDescriptor readEnd(ends[0]);
  const vpnctl::FileDescriptor writeEnd(ends[1]);
  auto child = linux::ChildProcess::spawn({pppd, "--version"}, {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C"},
                                          {.error = writeEnd.get(), .output = writeEnd.get()});
  if (!child) return child.error();
  if (!child->waitFor(kPatience)) return vpnctl::Error{"PPPDCheck", 0, "it does not say its version in time"};
  std::array<char, 256> text{};
  const ssize_t count = ::read(readEnd.get(), text.data(), text.size());
  return std::string(text.data(), count < 0 ? 0 : static_cast<std::size_t>(count));
}

// "2.4.9" of "pppd version 2.4.9".
std::optional<std::string> versionIn(const std::string &text) {
  constexpr std::string_view kBefore = "version ";
  const std::size_t start = text.find(kBefore);
  if (start == std::string::npos) return std::nullopt;
  std::string version;
  for (std::size_t index = start + kBefore.size(); index < text.size(); ++index) {
    const char c = text[index];
    if (std::isspace(static_cast<unsigned char>(c)) != 0) break;
    version += c;
  }
  return version.empty() ? std::nullopt : std::optional(version);
}

// Whether the plugin in BYTES is for VERSION: pppd compares a text of the plugin's with its own.
bool isFor(const std::string &bytes, const std::string &version) {
  const std::string wanted = version + '\0';
  for (std::size_t at = bytes.find(wanted); at != std::string::npos; at = bytes.find(wanted, at + 1))
    if (at == 0 || (std::isalnum(static_cast<unsigned char>(bytes[at - 1])) == 0 && bytes[at - 1] != '.')) return true;
  return false;
}

bool anybodyMayRun(const std::string &path) {
  std::error_code error;
  const auto bits = fs::perms::owner_exec | fs::perms::group_exec | fs::perms::others_exec;
  return (fs::status(path, error).permissions() & bits) != fs::perms::none && !error;
}

void compare(const Machine &machine, const std::string &version, FindingList &found) {
  std::ifstream file(machine.plugin, std::ios::binary);
  const std::string bytes{std::istreambuf_iterator<char>(file), {}};
  if (bytes.empty())
    return found.unseen("pppd.version", "vpnctl's plugin for pppd, " + machine.plugin + ", cannot be read.",
                        "pppd loads it only if both have the same version.", "run vpnctl-doctor as root");
  if (!isFor(bytes, version))
    found.prevents("pppd.version", "vpnctl's plugin for pppd, " + machine.plugin + ", is not for pppd " + version + ".",
                   "pppd loads no plugin that was built for another version.",
                   "install the vpnctl of this release of the system, or build it here anew");
  found.fine("pppd.version", "pppd " + version + " takes vpnctl's plugin.");
}

void lookAtVersion(const Situation &situation, FindingList &found) {
  const Machine &machine = situation.machine;
  constexpr char kWhy[] = "pppd loads vpnctl's plugin only if both have the same version.";
  if (!situation.isRoot() && ::access(machine.pppd.c_str(), X_OK) != 0)
    return found.unseen("pppd.version", "pppd's version cannot be asked for: this user may not run pppd.", kWhy,
                        "run vpnctl-doctor as root");
  const auto output = outputOf(machine.pppd);
  if (!output)
    return found.prevents("pppd.program", "pppd cannot be run: " + output.error().message + ".",
                          "It negotiates PPP with the server.", "apt install --reinstall ppp");
  const auto version = versionIn(*output);
  if (!version)
    return found.hinders("pppd.version", machine.pppd + " does not say which version it is.", kWhy,
                         "apt install --reinstall ppp");
  compare(machine, *version, found);
}

}  // namespace

Findings PPPDCheck::look(const Situation &situation) {
  FindingList found;
  const Machine &machine = situation.machine;
  std::error_code ignored;
  const bool hasPlugin = fs::exists(machine.plugin, ignored);
  if (!hasPlugin)
    found.prevents("pppd.plugin", "vpnctl's plugin for pppd is not there: " + machine.plugin + ".",
                   "pppd gets the tunnel and the password through it.", "install vpnctl anew");
  found.fine("pppd.plugin", "The plugin is " + machine.plugin + ".");
  if (!fs::exists(machine.pppd, ignored))
    found.prevents("pppd.program", "There is no pppd: " + machine.pppd + ".", "It negotiates PPP with the server.",
                   "apt install ppp");
  else if (!anybodyMayRun(machine.pppd))
    found.prevents("pppd.program", machine.pppd + " may not be run by anybody.", "It negotiates PPP with the server.",
                   "chmod 4754 " + machine.pppd);
  else if (hasPlugin)
    lookAtVersion(situation, found);
  found.fine("pppd.program", "There is " + machine.pppd + ".");
  return found.take();
}

}  // namespace companions
