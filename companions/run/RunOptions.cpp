#include "companions/run/RunOptions.h"

#include "companions/run/Hook.h"

namespace companions {

using GB::OptionKind;

namespace {

constexpr std::int64_t kLongestSeconds = 86400;

constexpr GB::Option kOptions[] = {
    {.name = "config",
     .letter = 'c',
     .value = "FILE",
     .description = "Read the connection from FILE",
     .kind = OptionKind::file,
     .required = true},
    {.description = "Secrets:"},
    {.name = "ask", .letter = 'a', .description = "Ask for the password and the shared secret that FILE leaves out"},
    {.name = "password-from", .value = "FILE", .description = "Take the password from FILE", .kind = OptionKind::file},
    {.name = "secret-from",
     .value = "FILE",
     .description = "Take the shared secret from FILE",
     .kind = OptionKind::file},
    {.description = "Connecting again:"},
    {.name = "reconnect", .letter = 'r', .description = "Connect again when the connection ends unasked"},
    {.name = "reconnect-limit",
     .value = "N",
     .description = "Give up after N attempts in a row without a connection",
     .kind = OptionKind::integer,
     .minimum = 0,
     .maximum = 1000000},
    {.name = "reconnect-pause",
     .value = "SECONDS",
     .description = "How long to wait before the first of them; the pauses grow",
     .kind = OptionKind::integer,
     .minimum = 1,
     .maximum = 300,
     .standard = "2"},
    {.description = "Programs to run:"},
    {.name = "up",
     .value = "PROGRAM",
     .description = "Run PROGRAM when the connection is up; if it fails, disconnect",
     .kind = OptionKind::file},
    {.name = "down",
     .value = "PROGRAM",
     .description = "Run PROGRAM when the connection is over",
     .kind = OptionKind::file},
    {.name = "hook-timeout",
     .value = "SECONDS",
     .description = "How long each may take",
     .kind = OptionKind::integer,
     .minimum = 1,
     .maximum = kLongestSeconds,
     .standard = "30"},
    {.description = "What is printed:"},
    {.name = "json", .letter = 'j', .description = "Print one event in JSON a line in place of the text"},
    {.name = "progress",
     .letter = 'p',
     .description = "Say what goes on; the usual where standard error is a terminal",
     .negatable = true},
};

vpnctl::Result<std::optional<std::string>> textOf(const GB::CommandLine &line, std::string_view name) {
  if (!line.isGiven(name)) return std::optional<std::string>();
  const auto bytes = line.bytes(name);
  if (!bytes) return bytes.error();
  return std::optional(std::string(*bytes));
}

vpnctl::Result<std::optional<std::string>> programOf(const GB::CommandLine &line, std::string_view name) {
  const auto given = textOf(line, name);
  if (!given || !*given) return given;
  const auto program = runnableProgram(**given);
  if (!program) return program.error();
  return std::optional(*program);
}

}  // namespace

constexpr GB::Command kRunCommand = {
    .name = "vpnctl-run",
    .summary = "Runs vpnctl, and tells by its exit status, in JSON or to systemd how the connection fares.",
    .version = VPNCTL_VERSION,
    .options = kOptions};

vpnctl::Result<RunOptions> RunOptions::from(const GB::CommandLine &line) {
  RunOptions options;
  const auto configuration = line.bytes("config");
  if (!configuration) return configuration.error();
  options.configuration = *configuration;
  for (const auto &[name, place] :
       {std::pair{"password-from", &options.passwordFile}, std::pair{"secret-from", &options.secretFile}}) {
    auto file = textOf(line, name);
    if (!file) return file.error();
    *place = std::move(*file);
  }
  for (const auto &[name, place] : {std::pair{"up", &options.up}, std::pair{"down", &options.down}}) {
    auto program = programOf(line, name);
    if (!program) return program.error();
    *place = std::move(*program);
  }
  options.ask = line.isOn("ask");
  options.reconnect = line.isOn("reconnect");
  if (line.isGiven("reconnect-limit")) {
    const auto limit = line.integer("reconnect-limit");
    if (!limit) return limit.error();
    options.reconnectLimit = *limit;
  }
  for (const auto &[name, place] :
       {std::pair{"reconnect-pause", &options.reconnectPause}, std::pair{"hook-timeout", &options.hookDeadline}}) {
    const auto seconds = line.integer(name);
    if (!seconds) return seconds.error();
    *place = std::chrono::seconds(*seconds);
  }
  options.json = line.isOn("json");
  if (line.isGiven("progress")) options.progress = line.isOn("progress");
  return options;
}

}  // namespace companions
