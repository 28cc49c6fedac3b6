// vpnctl-run: runs vpnctl, and turns its lines into what people, programs and systemd want to know of a connection.

#include <sys/stat.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "cli/CommandHelp.h"
#include "companions/common/ToolConfiguration.h"
#include "companions/run/Run.h"
#include "companions/run/RunOptions.h"
#include "companions/run/SecretSource.h"
#include "companions/run/StopSignals.h"
#include "foundation/ProcessMemory.h"
#include "foundation/StandardStreams.h"
#include "linux/SystemdOwners.h"

extern char **environ;

namespace {

using namespace companions;

constexpr std::string_view kProtocols[] = {"l2tp", "pptp"};

int fail(int status, const std::string &text) {
  std::fputs(("vpnctl-run: " + text + "\n").c_str(), stderr);
  return status;
}

std::optional<std::string> variable(const char *name) {
  const char *value = std::getenv(name);
  return value != nullptr ? std::optional<std::string>(value) : std::nullopt;
}

// What concerns this process alone, as a unit's own, is not for the programs that it starts.
std::vector<std::string> environmentOfChildren() {
  constexpr std::string_view kOurs[] = {"NOTIFY_SOCKET=", "CREDENTIALS_DIRECTORY=", "WATCHDOG_PID=", "WATCHDOG_USEC="};
  std::vector<std::string> result;
  for (char **entry = environ; *entry != nullptr; ++entry) {
    bool ours = false;
    for (const std::string_view name : kOurs) ours = ours || std::string_view(*entry).starts_with(name);
    if (!ours) result.emplace_back(*entry);
  }
  return result;
}

// One of the two secrets, where it is to come from.
struct Wanted {
  const std::optional<std::string> &file;
  const char *credential;
  std::string question;
  bool isMissing;
};

// None: it is not to be set. What the command line names comes before what the configuration holds.
vpnctl::Result<std::optional<vpnctl::Secret>> find(const Wanted &wanted, bool ask, const Questioner &questioner) {
  using Found = std::optional<vpnctl::Secret>;
  if (wanted.file) {
    auto secret = secretFromFile(*wanted.file);
    if (!secret) return secret.error();
    return Found(std::move(*secret));
  }
  if (!wanted.isMissing) return Found();
  auto credential = secretFromCredential(variable("CREDENTIALS_DIRECTORY"), wanted.credential);
  if (!credential || *credential || !ask) return credential;
  auto answer = askForSecret(wanted.question, questioner);
  if (!answer) return answer.error();
  return Found(std::move(*answer));
}

vpnctl::Status everythingIsThere(const ToolConfiguration &configuration, const std::string &path) {
  const std::string_view missing = configuration.missing();
  if (missing.empty()) return {};
  const char *others = missing == "password"        ? ", use --password-from, or have it asked for with --ask"
                       : missing == "shared_secret" ? ", use --secret-from, or have it asked for with --ask"
                                                    : "";
  return vpnctl::Error{"ToolConfiguration", 0,
                       path + " has no text " + std::string(missing) + "; write it there" + others};
}

// Puts in what the configuration leaves out.
vpnctl::Status complete(ToolConfiguration &configuration, const RunOptions &options, const Questioner &questioner) {
  const std::string server = configuration.server().value_or("the server");
  auto password = find({options.passwordFile, "password",
                        "Password of " + configuration.username().value_or("the user") + " at " + server + ":",
                        !configuration.hasPassword()},
                       options.ask, questioner);
  if (!password) return password.error();
  if (*password) configuration.setPassword(std::move(**password));
  auto secret =
      find({options.secretFile, "shared_secret", "Shared secret of " + server + ":", !configuration.hasSharedSecret()},
           options.ask && configuration.needsSharedSecret(), questioner);
  if (!secret) return secret.error();
  if (*secret) configuration.setSharedSecret(std::move(**secret));
  // Nobody need know that vpnctl wants this text for PPTP, too.
  if (!configuration.hasSharedSecret() && !configuration.needsSharedSecret()) configuration.setSharedSecret({});
  return everythingIsThere(configuration, options.configuration);
}

bool canBeReadOnce(const std::string &path) {
  struct stat status = {};
  return ::stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode);
}

Reporter::Form formOf(const RunOptions &options) {
  const char *terminal = std::getenv("TERM");
  const bool isTerminal = ::isatty(STDERR_FILENO) != 0 && terminal != nullptr && std::string_view(terminal) != "dumb";
  if (!options.progress.value_or(isTerminal)) return {.json = options.json};
  return {.json = options.json, .progress = isTerminal ? Progress::Form::line : Progress::Form::lines};
}

int run(const RunOptions &options) {
  const int badConfiguration = statusOf(Outcome::Kind::configuration);
  auto read = ToolConfiguration::read(options.configuration);
  const bool isRead = static_cast<bool>(read);
  // What is wrong with a file vpnctl says itself, if it can read it once more.
  ToolConfiguration configuration = read ? std::move(*read) : ToolConfiguration::unread(options.configuration);
  if (!read && (options.passwordFile || options.secretFile || options.ask || canBeReadOnce(options.configuration)))
    return fail(badConfiguration, read.error().message);
  // vpnctl says of another one that it cannot get authorization.
  if (const auto &protocol = configuration.protocol();
      protocol && std::find(std::begin(kProtocols), std::end(kProtocols), *protocol) == std::end(kProtocols))
    return fail(badConfiguration, options.configuration + ": the protocol is neither l2tp nor pptp");

  auto signals = StopSignals::block();
  if (!signals) return fail(1, signals.error().message);
  const Questioner questioner{.askPassword = VPNCTL_ASK_PASSWORD, .interrupt = signals->descriptor()};
  if (const auto completed = isRead ? complete(configuration, options, questioner) : vpnctl::Status(); !completed) {
    if (completed.error().domain == "Questioner" && completed.error().code == kInterrupted) return 0;
    return fail(badConfiguration, completed.error().message);
  }

  linux::EventLoop loop;
  if (::sd_event_new(linux::Out(loop)) < 0) return fail(1, "there is no event loop");
  std::random_device source;
  int status = 1;
  Run connection(
      loop.get(), options, std::move(configuration), VPNCTL_PATH, environmentOfChildren(), formOf(options),
      [&source] { return std::uniform_real_distribution<double>(0, 1)(source); },
      [&](int result) {
        status = result;
        ::sd_event_exit(loop.get(), 0);
      });
  signals->watch(loop.get(), [&connection] { connection.interrupt(); });
  connection.begin();
  if (const int result = ::sd_event_loop(loop.get()); result < 0) return fail(1, "the event loop failed");
  return status;
}

}  // namespace

int main(int argc, char *argv[]) {
  vpnctl::openMissingStandardStreams();
  vpnctl::protectProcessMemory();
  // Whoever reads our lines may go; the connection stays.
  std::signal(SIGPIPE, SIG_IGN);
  const auto line = GB::CommandLine::parse(kRunCommand, argc, argv);
  if (!line) return GB::printUsageError(kRunCommand, line.error());
  if (GB::printWhatIsAsked(*line)) return 0;
  const auto options = RunOptions::from(*line);
  if (!options) return GB::printUsageError(kRunCommand, options.error());
  try {
    return run(*options);
  } catch (const std::exception &exception) {
    return fail(1, exception.what());
  }
}
