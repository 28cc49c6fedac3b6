#include "companions/doctor/DoctorOptions.h"

namespace companions {

using GB::OptionKind;

namespace {

constexpr GB::Option kOptions[] = {
    {.name = "config",
     .letter = 'c',
     .value = "FILE",
     .description = "Look at the connection that FILE describes",
     .kind = OptionKind::file},
    {.name = "offline", .letter = 'o', .description = "Ask the server nothing"},
    {.name = "links", .letter = 'l', .description = "Show the links that are up, and look for nothing"},
    {.description = "What is printed:"},
    {.name = "all", .letter = 'a', .description = "Print what is fine, too"},
    {.name = "json", .letter = 'j', .description = "Print a finding, or a link, in JSON a line in place of the text"},
    {.name = "color",
     .description = "Print in colours; the usual where standard output is a terminal",
     .negatable = true},
};

}  // namespace

constexpr GB::Command kDoctorCommand = {
    .name = "vpnctl-doctor",
    .summary = "Says what stands between this machine and a connection of vpnctl's, and what mends it.",
    .version = VPNCTL_VERSION,
    .options = kOptions};

vpnctl::Result<DoctorOptions> DoctorOptions::from(const GB::CommandLine &line) {
  DoctorOptions options;
  if (line.isGiven("config")) {
    const auto configuration = line.bytes("config");
    if (!configuration) return configuration.error();
    options.configuration = std::string(*configuration);
  }
  options.links = line.isOn("links");
  options.offline = line.isOn("offline");
  options.all = line.isOn("all");
  options.json = line.isOn("json");
  if (line.isGiven("color")) options.colours = line.isOn("color");
  return options;
}

}  // namespace companions
