// vpnctl: reads its configuration, chooses the connector, obtains the right, and stays with the connection until it
// ends, or until SIGUSR1 ends it.

#include <getopt.h>
#include <libconfig.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <string>

#include "foundation/ProcessMemory.h"
#include "foundation/StandardStreams.h"
#include "foundation/Text.h"
#include "platform/Dispatch.h"
#include "platform/SecretFile.h"
#include "qolmhelper/ConfigurationFile.h"
#include "qolmhelper/TNConnectorL2TP.h"
#include "qolmhelper/TNConnectorPPTP.h"

// GCC wants to be told that a full buffer is meant; clang does not know the word.
#if __has_cpp_attribute(gnu::nonstring)
#define NOT_TERMINATED [[gnu::nonstring]]
#else
#define NOT_TERMINATED
#endif

namespace {

// A path that fills all 1024 bytes has no terminating zero of its own: the one that is never written stands behind it.
struct {
  NOT_TERMINATED char bytes[1024] = "config.qolm";
  const char zero = '\0';
} config_path;

constexpr std::array kKeys{"protocol", "ip", "username", "password", "shared_secret"};

// Never destroyed once it has been read: what it holds stays until the process ends.
config_t settings;

void print_usage() { std::printf("Usage: %s -c config\n\n", "vpnctl"); }

void parse_options(int argc, char *argv[]) {
  static constexpr option kLongOptions[] = {
      {"config", required_argument, nullptr, 'c'},
      {nullptr, 0, nullptr, 0},
  };
  while (true) {
    int index = 0;
    switch (getopt_long(argc, argv, "c:", kLongOptions, &index)) {
      case -1:
        return;
      case 'c':
        std::strncpy(config_path.bytes, optarg, sizeof config_path.bytes);
        break;
      case '?':  // getopt_long has said it
      case 0:
        break;
      default:
        print_usage();
        std::exit(1);
    }
  }
}

// Null when the settings have no such text. The value lives as long as they do.
const char *find(const char *key) {
  const char *value = nullptr;
  return config_lookup_string(&settings, key, &value) == CONFIG_TRUE ? value : nullptr;
}

// The same; what is missing is told.
const char *lookup(const char *key) {
  const char *const value = find(key);
  if (value == nullptr) std::fprintf(stderr, "Invalid config! Missing %s!", key);
  return value;
}

// Tells the settings that were found on standard output. Only at the end, when C flushes a stream that is no terminal:
// a buffer that held them through the whole run would be one more copy of the secrets, and flushing it earlier would
// end the tool before it has tried to connect where nobody reads any more. A reader that is gone does not change the
// exit status either.
void echoSettings() {
  std::signal(SIGPIPE, SIG_IGN);
  for (const char *const key : kKeys)
    if (const char *const value = find(key); value != nullptr) std::printf("%s: %s", key, value);
}

// An abnormal end flushes no stream by itself.
std::terminate_handler usualTerminate = nullptr;
[[noreturn]] void echoAndTerminate() {
  echoSettings();
  std::fflush(stdout);
  usualTerminate();
  std::abort();
}

using Text = TN::TNConnectorPPP::Text;
using SecretText = TN::TNConnectorPPP::SecretText;

template <class Connector>
std::shared_ptr<TN::TNConnectorPPP> make(Text server, Text username, SecretText password, SecretText sharedSecret) {
  return std::make_shared<Connector>(std::move(server), std::move(username), std::move(password),
                                     std::move(sharedSecret));
}

struct Protocol {
  const char *name;
  std::shared_ptr<TN::TNConnectorPPP> (*make)(Text server, Text username, SecretText password, SecretText sharedSecret);
};
constexpr std::array kProtocols{Protocol{"l2tp", make<TN::TNConnectorL2TP>},
                                Protocol{"pptp", make<TN::TNConnectorPPTP>}};

std::shared_ptr<TN::TNConnectorPPP> makeConnector() {
  std::array<const char *, kKeys.size()> values{};
  std::ranges::transform(kKeys, values.begin(), lookup);
  const auto [protocol, ip, username, password, sharedSecret] = values;

  // A missing value throws here, and nobody catches: without its settings the tool ends abnormally.
  const Text name = vpnctl::stringWithUTF8String(protocol);
  const auto *const known = std::ranges::find_if(kProtocols, [&](const Protocol &p) { return name == p.name; });
  if (known == kProtocols.end()) return nullptr;
  auto server = vpnctl::stringWithUTF8String(ip);
  auto account = vpnctl::stringWithUTF8String(username);
  auto accountPassword = vpnctl::secretWithUTF8String(password);
  auto secret = vpnctl::secretWithUTF8String(sharedSecret);
  return known->make(std::move(server), std::move(account), std::move(accountPassword), std::move(secret));
}

platform::dispatch_source_t armTeardown(const std::shared_ptr<TN::TNConnectorPPP> &connector) {
  const platform::dispatch_source_t source = platform::dispatch_source_create(
      platform::DISPATCH_SOURCE_TYPE_SIGNAL, SIGUSR1, 0,
      platform::dispatch_get_global_queue(platform::DISPATCH_QUEUE_PRIORITY_DEFAULT, 0));
  platform::dispatch_source_set_event_handler(source, [connector] {
    connector->disconnect();
    sleep(1000);  // meanwhile the main thread sees the end, says so and returns from main: that way is to win
    std::exit(0);
  });
  platform::dispatch_resume(source);
  platform::ignoreObservedSignal(source);
  return source;
}

}  // namespace

int main(int argc, char *argv[]) {
  vpnctl::openMissingStandardStreams();
  vpnctl::protectProcessMemory();
  parse_options(argc, argv);

  const char *const path = config_path.bytes;
  config_init(&settings);
  if (!TN::readConfiguration(&settings, path)) {
    // A file that cannot be opened has no error file.
    const char *const file = config_error_file(&settings);
    std::fprintf(stderr, "error parse config: %s\n", path);
    std::fprintf(stderr, "%s:%d - %s\n", file != nullptr ? file : "(null)", config_error_line(&settings),
                 config_error_text(&settings));
    config_destroy(&settings);
    return 1;
  }
  std::atexit(echoSettings);
  usualTerminate = std::set_terminate(echoAndTerminate);

  const std::shared_ptr<TN::TNConnectorPPP> connector = makeConnector();
  if (!connector || !connector->authorize()) {
    std::fputs("Cannot get authorization!", stderr);
    return 1;
  }
  if (TN::everybodyMayRead(path)) platform::tellOfReadableSecrets(path);
  const platform::dispatch_source_t teardown = armTeardown(connector);
  connector->connect();
  return 0;
}
