// vpnctl-doctor: says what stands between this machine and a connection, before one is tried.

#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string_view>
#include <utility>

#include "cli/CommandHelp.h"
#include "cli/CommandLine.h"
#include "companions/doctor/ConfigurationCheck.h"
#include "companions/doctor/DoctorOptions.h"
#include "companions/doctor/KernelCheck.h"
#include "companions/doctor/LeftoversCheck.h"
#include "companions/doctor/OthersCheck.h"
#include "companions/doctor/PPPDCheck.h"
#include "companions/doctor/PartsCheck.h"
#include "companions/doctor/PortsCheck.h"
#include "companions/doctor/Report.h"
#include "companions/doctor/RightsCheck.h"
#include "companions/doctor/ServerCheck.h"
#include "companions/doctor/SettingsCheck.h"
#include "companions/doctor/Situation.h"
#include "companions/links/LinkRendering.h"
#include "companions/links/LinksUp.h"
#include "foundation/ProcessMemory.h"
#include "foundation/StandardStreams.h"

namespace {

using namespace companions;

// All that is looked at on this machine, in the order in which it is told.
struct Check {
  std::string_view title;
  Findings (*look)(const Situation &situation);
};
constexpr Check kChecks[] = {
    {"Configuration", ConfigurationCheck::look},
    {"Settings of the engine", SettingsCheck::look},
    {"Kernel", KernelCheck::look},
    {"pppd", PPPDCheck::look},
    {"Parts of vpnctl", PartsCheck::look},
    {"Rights", RightsCheck::look},
    {"UDP ports", PortsCheck::look},
    {"Other VPNs", OthersCheck::look},
    {"Leftovers", LeftoversCheck::look},
};

bool mayColour() {
  const char *refused = std::getenv("NO_COLOR");
  const char *terminal = std::getenv("TERM");
  return ::isatty(STDOUT_FILENO) != 0 && (refused == nullptr || *refused == '\0') && terminal != nullptr &&
         std::string_view(terminal) != "dumb";
}

Machine machine() {
  Machine machine = Machine::here();
  machine.tool = VPNCTL_PATH;
  machine.helper = VPNCTL_HELPER_PATH;
  machine.ike = VPNCTL_IKE_PATH;
  machine.plugin = VPNCTL_PLUGIN_PATH;
  return machine;
}

// The status to end with where nothing is wrong: STATUS.
int printed(const std::string &text, int status) {
  std::fputs(text.c_str(), stdout);
  if (std::fflush(stdout) == 0) return status;
  std::fputs("vpnctl-doctor: what was found cannot be printed\n", stderr);
  return 1;
}

int showLinks(bool json) {
  const Sources sources = Sources::ofThisMachine();
  const auto links = linksUp(sources);
  if (!links) {
    std::fprintf(stderr, "vpnctl-doctor: %s\n", links.error().message.c_str());
    return 1;
  }
  std::string text;
  for (const LinkState &link : *links) text += json ? jsonOf(link).line() : textOf(link, sources.now);
  if (links->empty() && !json) text = std::string(kNoLink) + "\n";
  return printed(text, 0);
}

// Asking a server takes a while.
void sayThatItIsAsked(const std::string &server) {
  if (::isatty(STDERR_FILENO) == 0) return;
  std::fprintf(stderr, "Asking %s, for a minute at the longest; --offline leaves that out.\n", server.c_str());
}

int diagnose(const DoctorOptions &options) {
  const Situation situation = Situation::of(machine(), ::geteuid(), options.configuration);
  Report report;
  for (const Check &check : kChecks) report.add(check.title, check.look(situation));
  if (!options.offline && !situation.server().empty()) {
    sayThatItIsAsked(situation.server());
    report.add("Server", ServerCheck::look(situation));
  }
  const Report::Form form{.all = options.all, .colours = options.colours.value_or(mayColour())};
  return printed(options.json ? report.json(form) : report.text(form), report.status());
}

}  // namespace

int main(int argc, char *argv[]) {
  vpnctl::openMissingStandardStreams();
  vpnctl::protectProcessMemory();
  // Printing says that nobody reads any more.
  std::signal(SIGPIPE, SIG_IGN);
  const auto line = GB::CommandLine::parse(kDoctorCommand, argc, argv);
  if (!line) return GB::printUsageError(kDoctorCommand, line.error());
  if (GB::printWhatIsAsked(*line)) return 0;
  const auto options = DoctorOptions::from(*line);
  if (!options) return GB::printUsageError(kDoctorCommand, options.error());
  try {
    return options->links ? showLinks(options->json) : diagnose(*options);
  } catch (const std::exception &exception) {
    std::fprintf(stderr, "vpnctl-doctor: %s\n", exception.what());
    return 1;
  }
}
